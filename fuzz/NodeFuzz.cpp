// Fuzz target: a ".node" object graph in either serializer form. What loads
// is updated, walked, cloned and saved again in both forms, so that a forged
// count, name or class reaches everything that trusts a loaded tree.
#include <cstddef>
#include <cstdint>

#include "fuzz/SerialReaderFuzz.h"
#include "io/MemoryStream.h"
#include "scene/Node.h"
#include "serialization/BinSerializer.h"
#include "serialization/XmlSerializer.h"

namespace {

using namespace KovexEngine;

void SaveIn(const Class* form, const Node* node)
{
    auto* out = new DataStream();
    Ptr<Stream> stream(new MemoryStream(out, true));
    stream->SetWriteable(true);
    Serializer* writer = Serializer::Create(form);
    if (writer && writer->Open(stream, Serializer::MODE_WRITE) && writer->Enter(FourCCs::OBJ))
    {
        writer->SaveObject(ConstPtr<Object>(node), 0);
        writer->Leave();
        writer->Close();
    }
    delete writer;
}

void Exercise(Node* node)
{
    node->Update(0.016f);
    node->GetFinalAabb();
    unsigned count = 0;
    for (Node::Iterator it(Ptr<Node>(node), true); it.hasNext(); it.Next())
        ++count;
    // Names a forged file may hold are looked up, missing or present.
    node->GetChildRecursively(WString(u"n"));
    Ptr<Object> copy = node->Clone(0);
    if (Node* clone = DynamicCast<Node>(copy.Get()))
        clone->ForceUpdate(0);
    SaveIn(BinSerializer::StaticGetClass(), node);
    SaveIn(XmlSerializer::StaticGetClass(), node);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    return KovexFuzz::ReadSerialized(data, size, [](Serializer& reader) {
        if (!reader.Enter(FourCCs::OBJ))
            return;
        Ptr<Object> object;
        if (reader.LoadObject(object, nullptr, 0))
            if (Node* node = DynamicCast<Node>(object.Get()))
                Exercise(node);
        reader.Leave();
    });
}
