// Saving and loading a graph of 100,000 reflected objects of 10 properties,
// in both serializer forms, beside a hand-written fwrite/fread of the same
// values: the floor for getting them to a file and back. Every figure goes
// through a real temporary file, and items are properties.

#include <benchmark/benchmark.h>

#include <cstdio>
#include <vector>

#include "io/MemoryStream.h"
#include "math/Quaternion.h"
#include "reflection/Object.h"
#include "reflection/PropertyRegistration.h"
#include "serialization/BinSerializer.h"
#include "serialization/XmlSerializer.h"

using namespace KovexEngine;

namespace KovexBench {

class Record : public Object
{
    KOVEX_CLASS(Record)
public:
    int32 id = 0;
    uint32 flags = 0;
    float weight = 0;
    float speed = 0;
    bool visible = true;
    Vector3 position;
    Vector4 colour;
    Quaternion rotation;
    AString tag;
    Matrix4 local;
};

KOVEX_REGISTER_CLASS_EX(Record, u"Bench")
void Record::StaticConstructor(Class* cls)
{
    RegisterBases<Record, Object>(cls);
    AddField(cls, u"Id", &Record::id);
    AddField(cls, u"Flags", &Record::flags);
    AddField(cls, u"Weight", &Record::weight);
    AddField(cls, u"Speed", &Record::speed);
    AddField(cls, u"Visible", &Record::visible);
    AddField(cls, u"Position", &Record::position);
    AddField(cls, u"Colour", &Record::colour);
    AddField(cls, u"Rotation", &Record::rotation);
    AddField(cls, u"Tag", &Record::tag);
    AddField(cls, u"Local", &Record::local);
    cls->ProcessClass();
}

constexpr unsigned kObjects = 100000;
constexpr unsigned kProperties = 10;

const std::vector<Ptr<Record>>& Graph()
{
    static std::vector<Ptr<Record>> graph = [] {
        std::vector<Ptr<Record>> out;
        for (unsigned i = 0; i < kObjects; ++i)
        {
            Ptr<Record> r(new Record());
            r->id = int32(i);
            r->flags = i * 2654435761u;
            r->weight = float(i) * 0.25f;
            r->speed = 1.5f;
            r->position = Vector3(float(i), 2, 3);
            r->colour = Vector4(0.5f, 0.25f, 1, 1);
            r->tag.Format("record %u", i);
            out.push_back(r);
        }
        return out;
    }();
    return graph;
}

// The bytes go to a temporary file and back, as they would to a disk.
void ToFile(std::FILE* file, const DataStream& data)
{
    std::rewind(file);
    std::fwrite(data.GetPointer(), 1, data.GetLength(), file);
    std::fflush(file);
}

DataStream* FromFile(std::FILE* file)
{
    std::fseek(file, 0, SEEK_END);
    long size = std::ftell(file);
    std::rewind(file);
    auto* data = new DataStream(unsigned(size));
    if (std::fread(data->GetPointer(), 1, size_t(size), file) != size_t(size))
        return nullptr;
    return data;
}

DataStream Save(const Class* form)
{
    DataStream data;
    Ptr<Stream> stream(new MemoryStream(&data, false));
    stream->SetWriteable(true);
    Serializer* s = Serializer::Create(form);
    s->Open(stream, Serializer::MODE_WRITE);
    for (const Ptr<Record>& r : Graph())
    {
        s->Enter(FourCCs::OBJ);
        s->SaveObject(ConstPtr<Object>(r.Get()), 0);
        s->Leave();
    }
    s->Close();
    delete s;
    return data;
}

void SaveBenchmark(benchmark::State& state, const Class* form)
{
    Graph();
    std::FILE* file = std::tmpfile();
    for (auto _ : state)
    {
        DataStream data = Save(form);
        ToFile(file, data);
    }
    std::fclose(file);
    state.SetItemsProcessed(int64_t(state.iterations()) * kObjects * kProperties);
}

void LoadBenchmark(benchmark::State& state, const Class* form)
{
    std::FILE* file = std::tmpfile();
    ToFile(file, Save(form));
    unsigned loaded = 0;
    for (auto _ : state)
    {
        Ptr<Stream> stream(new MemoryStream(FromFile(file), true));
        Serializer* s = Serializer::OpenReadStream(stream);
        loaded = 0;
        Ptr<Object> object;
        // Entering past the last section starts over at the first, so the
        // loop counts.
        for (unsigned i = 0; s && i < kObjects && s->Enter(FourCCs::OBJ); ++i)
        {
            loaded += s->LoadObject(object, nullptr, 0);
            s->Leave();
        }
        delete s;
    }
    std::fclose(file);
    if (loaded != kObjects)
        state.SkipWithError("the graph did not load whole");
    state.SetItemsProcessed(int64_t(state.iterations()) * kObjects * kProperties);
}

void BM_Serialize_BinarySave(benchmark::State& state) { SaveBenchmark(state, BinSerializer::StaticGetClass()); }
void BM_Serialize_BinaryLoad(benchmark::State& state) { LoadBenchmark(state, BinSerializer::StaticGetClass()); }
void BM_Serialize_XmlSave(benchmark::State& state) { SaveBenchmark(state, XmlSerializer::StaticGetClass()); }
void BM_Serialize_XmlLoad(benchmark::State& state) { LoadBenchmark(state, XmlSerializer::StaticGetClass()); }

// The floor: the same values, written field by field with fwrite and read
// back with fread into the same objects, with no names, tags or checks.
void WriteRaw(std::FILE* file)
{
    std::rewind(file);
    for (const Ptr<Record>& r : Graph())
    {
        std::fwrite(&r->id, sizeof r->id, 1, file);
        std::fwrite(&r->flags, sizeof r->flags, 1, file);
        std::fwrite(&r->weight, sizeof r->weight, 1, file);
        std::fwrite(&r->speed, sizeof r->speed, 1, file);
        std::fwrite(&r->visible, sizeof r->visible, 1, file);
        std::fwrite(&r->position, sizeof r->position, 1, file);
        std::fwrite(&r->colour, sizeof r->colour, 1, file);
        std::fwrite(&r->rotation, sizeof r->rotation, 1, file);
        uint32 length = r->tag.Length();
        std::fwrite(&length, 4, 1, file);
        std::fwrite(r->tag(), 1, length, file);
        std::fwrite(&r->local, sizeof r->local, 1, file);
    }
    std::fflush(file);
}

void BM_Serialize_FwriteFloor(benchmark::State& state)
{
    Graph();
    std::FILE* file = std::tmpfile();
    for (auto _ : state)
        WriteRaw(file);
    std::fclose(file);
    state.SetItemsProcessed(int64_t(state.iterations()) * kObjects * kProperties);
}

void BM_Serialize_FreadFloor(benchmark::State& state)
{
    std::FILE* file = std::tmpfile();
    WriteRaw(file);
    for (auto _ : state)
    {
        std::rewind(file);
        std::vector<Ptr<Record>> out;
        out.reserve(kObjects);
        for (unsigned i = 0; i < kObjects; ++i)
        {
            Ptr<Record> r(new Record());
            bool ok = std::fread(&r->id, sizeof r->id, 1, file) && std::fread(&r->flags, sizeof r->flags, 1, file) &&
                      std::fread(&r->weight, sizeof r->weight, 1, file) && std::fread(&r->speed, sizeof r->speed, 1, file) &&
                      std::fread(&r->visible, sizeof r->visible, 1, file) &&
                      std::fread(&r->position, sizeof r->position, 1, file) &&
                      std::fread(&r->colour, sizeof r->colour, 1, file) &&
                      std::fread(&r->rotation, sizeof r->rotation, 1, file);
            uint32 length = 0;
            ok = ok && std::fread(&length, 4, 1, file) && r->tag.SetLength(length) &&
                 std::fread(r->tag(), 1, length, file) == length && std::fread(&r->local, sizeof r->local, 1, file);
            if (!ok)
            {
                state.SkipWithError("short read");
                break;
            }
            out.push_back(r);
        }
        benchmark::DoNotOptimize(out.data());
    }
    std::fclose(file);
    state.SetItemsProcessed(int64_t(state.iterations()) * kObjects * kProperties);
}

BENCHMARK(BM_Serialize_FwriteFloor)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_Serialize_BinarySave)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_Serialize_XmlSave)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_Serialize_FreadFloor)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_Serialize_BinaryLoad)->Unit(benchmark::kMillisecond)->MinTime(3.0);
BENCHMARK(BM_Serialize_XmlLoad)->Unit(benchmark::kMillisecond)->MinTime(3.0);

} // namespace KovexBench
