#include "fuzz/SampleClasses.h"

#include "reflection/FunctionRegistration.h"

namespace KovexSample {

KOVEX_REGISTER_STRUCT(SampleLabel, u"Samples", KOVEX_TYPE_CUSTOM)
void SampleLabel::StaticConstructor(Class* cls)
{
    AddStructField(cls, u"Id", &SampleLabel::id);
    AddStructField(cls, u"Text", &SampleLabel::text);
    cls->ProcessClass();
}

KOVEX_REGISTER_CLASS_EX(SamplePart, u"Samples")
void SamplePart::StaticConstructor(Class* cls)
{
    RegisterBases<SamplePart, Object>(cls);
    AddField(cls, u"Id", &SamplePart::id);
    AddField(cls, u"Hits", &SamplePart::hits);
    AddFunction(cls, u"Hit", &SamplePart::Hit, {u"amount"});
    cls->ProcessClass();
}

namespace {
ArrayClass::Funcs HiddenFuncs()
{
    ArrayClass::Funcs funcs;
    funcs.count = [](const void* owner) { return static_cast<const SampleCrate*>(owner)->hidden.Count(); };
    funcs.get = [](const void* owner, unsigned index, Variable& out) {
        const auto& hidden = static_cast<const SampleCrate*>(owner)->hidden;
        if (index >= hidden.Count())
            return false;
        out = int(hidden[index]);
        return true;
    };
    funcs.insert = [](void* owner, unsigned index, const Variable& value) {
        int32 item = 0;
        auto& hidden = static_cast<SampleCrate*>(owner)->hidden;
        return index <= hidden.Count() && FunctionDetail::FromVariable(value, item) && hidden.Insert(index, item);
    };
    funcs.clear = [](void* owner) { static_cast<SampleCrate*>(owner)->hidden.Clear(); };
    return funcs;
}
} // namespace

KOVEX_REGISTER_CLASS_EX(SampleCrate, u"Samples")
void SampleCrate::StaticConstructor(Class* cls)
{
    RegisterBases<SampleCrate, NamedObject>(cls);
    AddArrayField(cls, u"Numbers", &SampleCrate::numbers);
    AddArrayField(cls, u"Masks", &SampleCrate::masks);
    AddArrayField(cls, u"Weights", &SampleCrate::weights);
    AddArrayField(cls, u"Tags", &SampleCrate::tags);
    AddArrayField(cls, u"Names", &SampleCrate::names);
    AddArrayField(cls, u"Points", &SampleCrate::points);
    AddArrayField(cls, u"Labels", &SampleCrate::labels);
    AddArrayField(cls, u"Parts", &SampleCrate::parts);
    AddArrayField(cls, u"Handlers", &SampleCrate::handlers);
    AddMapField(cls, u"Counts", &SampleCrate::counts);
    AddMapField(cls, u"PartsById", &SampleCrate::partsById);
    AddField(cls, u"Favourite", &SampleCrate::favourite);
    AddField(cls, u"OnHit", &SampleCrate::onHit);
    AddField(cls, u"OnSelf", &SampleCrate::onSelf);
    AddField(cls, u"SelfHits", &SampleCrate::selfHits);
    AddArrayFuncs<SampleCrate, int32>(cls, u"Hidden", HiddenFuncs());
    AddFunction(cls, u"HitSelf", &SampleCrate::HitSelf, {u"amount"});
    cls->ProcessClass();
}

namespace {
template <typename T, typename... U>
void Fill(TArray<T>& array, const U&... items)
{
    (array.Add(T(items)), ...);
}
} // namespace

Ptr<SampleCrate> MakeSampleCrate()
{
    Ptr<SampleCrate> crate(new SampleCrate());
    crate->SetName(u"crate");
    Fill(crate->numbers, 3, -1, 2147483647);
    Fill(crate->masks, 0xFFFFFFFFu, 0u);
    Fill(crate->weights, 0.5f, -2.25f);
    Fill(crate->tags, "first", "", "a < b & \"c\"");
    Fill(crate->names, u"\u00e9t\u00e9", u"n");
    Fill(crate->points, Vector3(1, 2, 3));
    Fill(crate->labels, SampleLabel{7, AString("seven")}, SampleLabel{-1, AString()});
    Ptr<SamplePart> a(new SamplePart()), b(new SamplePart());
    a->id = 1;
    b->id = 2;
    Fill(crate->parts, a, Ptr<SamplePart>(), a, b);
    crate->counts.Set(WString(u"apples"), 3);
    crate->counts.Set(WString(u"pears"), -4);
    crate->partsById.Set(1, a);
    crate->partsById.Set(2, b);
    crate->partsById.Set(3, Ptr<SamplePart>());
    crate->favourite = b;
    crate->onHit = SampleHandler(a.Get(), &SamplePart::Hit);
    crate->onSelf = SampleHandler(crate.Get(), &SampleCrate::HitSelf);
    Fill(crate->handlers, SampleHandler(b.Get(), &SamplePart::Hit), SampleHandler());
    Fill(crate->hidden, 10, 20, 30);
    return crate;
}

} // namespace KovexSample
