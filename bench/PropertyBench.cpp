// Reflected property access and function calls beside direct access in the
// same run. The direct baselines move the same value into the same Variable,
// so the difference is what reflection adds.

#include <benchmark/benchmark.h>

#include <string>
#include <type_traits>
#include <unordered_map>

#include "reflection/FunctionRegistration.h"
#include "reflection/Object.h"
#include "reflection/PropertyRegistration.h"
#include "reflection/Variable.h"

using namespace KovexEngine;

namespace KovexBench {

// Thirty fields of the kinds a scene object has.
#define KOVEX_BENCH_FIELDS(F)                                                                              \
    F(float, Alpha) F(float, Bravo) F(float, Charlie) F(float, Delta) F(float, Echo) F(float, Foxtrot)       \
    F(float, Golf) F(float, Hotel) F(float, India) F(float, Juliett) F(float, Kilo) F(float, Lima)           \
    F(float, Mike) F(float, November) F(float, Oscar) F(float, Papa) F(float, Quebec) F(float, Romeo)        \
    F(float, Sierra) F(float, Tango) F(int32, Uniform) F(int32, Victor) F(int32, Whiskey) F(int32, Xray)     \
    F(int32, Yankee) F(int32, Zulu) F(int32, Ambient) F(int32, Diffuse) F(Vector3, Specular) F(Vector3, Emissive)

class Wide : public Object
{
    KOVEX_CLASS(Wide)
public:
#define KOVEX_BENCH_DECLARE(T, N) T N{};
    KOVEX_BENCH_FIELDS(KOVEX_BENCH_DECLARE)
#undef KOVEX_BENCH_DECLARE
    float Blend(float a, float b, const Vector3& weights) const { return a * weights.x + b * weights.y + Alpha; }
};

KOVEX_REGISTER_CLASS_EX(Wide, u"Bench")
void Wide::StaticConstructor(Class* cls)
{
    RegisterBases<Wide, Object>(cls);
#define KOVEX_BENCH_REGISTER(T, N) AddField(cls, u"" #N, &Wide::N);
    KOVEX_BENCH_FIELDS(KOVEX_BENCH_REGISTER)
#undef KOVEX_BENCH_REGISTER
    AddFunction(cls, u"Blend", &Wide::Blend, {u"a", u"b", u"weights"});
    cls->ProcessClass();
}

} // namespace KovexBench

using namespace KovexBench;

static void BM_Property_GetByName(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    WString name(u"Romeo");
    Variable value;
    for (auto _ : state)
    {
        object->GetProperty(name, value);
        benchmark::DoNotOptimize(value);
    }
    state.counters["properties"] = double(Wide::StaticGetClass()->GetPropertyArray().Count());
}
BENCHMARK(BM_Property_GetByName);

static void BM_Property_SetByName(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    WString name(u"Romeo");
    Variable value(3.5f);
    for (auto _ : state)
    {
        object->SetProperty(name, value);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Property_SetByName);

static void BM_Property_GetFound(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    const Property* property = object->FindProperty(WString(u"Romeo"));
    const void* self = object->GetClassPointer(property->GetOwnerClass());
    Variable value;
    for (auto _ : state)
    {
        value.GetPropertyValue(property, self);
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_Property_GetFound);

static void BM_Property_SetFound(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    const Property* property = object->FindProperty(WString(u"Romeo"));
    void* self = object->GetClassPointer(property->GetOwnerClass());
    Variable value(3.5f);
    for (auto _ : state)
    {
        value.SetPropertyValue(property, self);
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_Property_SetFound);

static void BM_DirectField_GetIntoVariable(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    Wide* volatile target = object.Get();
    Variable value;
    for (auto _ : state)
    {
        value = target->Romeo;
        benchmark::DoNotOptimize(value);
    }
}
BENCHMARK(BM_DirectField_GetIntoVariable);

static void BM_DirectField_SetFromVariable(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    Wide* volatile target = object.Get();
    Variable value(3.5f);
    for (auto _ : state)
    {
        if (value.Type() == KOVEX_TYPE_FLOAT)
            target->Romeo = value.GetFloat();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_DirectField_SetFromVariable);

static void BM_DirectField_Read(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    Wide* volatile target = object.Get();
    for (auto _ : state)
        benchmark::DoNotOptimize(target->Romeo);
}
BENCHMARK(BM_DirectField_Read);

static void BM_Function_InvokeByName3Args(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    WString name(u"Blend");
    TFunctionStack<3> stack(3, true);
    stack->Var(0) = 1.0f;
    stack->Var(1) = 2.0f;
    stack->Var(2) = Vector3(0.5f, 0.25f, 0);
    for (auto _ : state)
    {
        object->Invoke(name, stack.Get());
        benchmark::DoNotOptimize(stack->RetVar());
    }
}
BENCHMARK(BM_Function_InvokeByName3Args);

static void BM_DirectCall3Args(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    Wide* volatile target = object.Get();
    Vector3 weights(0.5f, 0.25f, 0);
    float a = 1.0f, b = 2.0f;
    for (auto _ : state)
    {
        benchmark::DoNotOptimize(a);
        benchmark::DoNotOptimize(target->Blend(a, b, weights));
    }
}
BENCHMARK(BM_DirectCall3Args);

// A peer for the by-name figures: the same store through a hash map from
// names to field addresses.
static void BM_HashMapByName_Set(benchmark::State& state)
{
    Ptr<Wide> object(new Wide());
    std::unordered_map<std::u16string, float*> fields;
#define KOVEX_BENCH_ADDRESS(T, N)                                                 \
    if constexpr (std::is_same_v<T, float>)                                       \
        fields.emplace(u"" #N, reinterpret_cast<float*>(&object->N));
    KOVEX_BENCH_FIELDS(KOVEX_BENCH_ADDRESS)
#undef KOVEX_BENCH_ADDRESS
    std::u16string name(u"Romeo");
    Variable value(3.5f);
    for (auto _ : state)
    {
        auto it = fields.find(name);
        if (it != fields.end() && value.Type() == KOVEX_TYPE_FLOAT)
            *it->second = value.GetFloat();
        benchmark::ClobberMemory();
    }
}
BENCHMARK(BM_HashMapByName_Set);
