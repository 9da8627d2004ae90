// Fuzz target: a "CODE" section in either serializer form, loaded into a
// material, a framework and an attribute code; what loads is read through
// its configurations and saved again, so that a forged flag word or count
// reaches everything that trusts a loaded configuration.
#include <cstddef>
#include <cstdint>

#include "fuzz/SerialReaderFuzz.h"
#include "io/MemoryStream.h"
#include "serialization/BinSerializer.h"
#include "serialization/Serializer.h"
#include "shaders/PGCode.h"
#include "shaders/Program.h"

namespace {

using namespace KovexEngine;

void Exercise(PGCode* code)
{
    for (const auto& pair : code->GetConfigMap())
    {
        PGCodeConf* conf = pair.value;
        AString value;
        for (const auto& macro : conf->GetMacros())
            conf->FindMacro(value, macro.key);
        if (PGConfMT* mt = DynamicCast<PGConfMT>(conf))
        {
            // The mode setters index tables by the loaded fields.
            mt->SetBlendMode(mt->GetBlendMode());
            mt->SetTwoSideMode(mt->GetTwoSideMode());
            mt->SetTessellationScheme(mt->GetTessellationScheme());
            PGMaterial::GetBlendState(mt->GetBlendMode(), mt->GetBlendAlphaMode());
        }
    }
    auto* out = new DataStream();
    Ptr<Stream> stream(new MemoryStream(out, true));
    stream->SetWriteable(true);
    BinSerializer writer;
    if (writer.Open(stream, Serializer::MODE_WRITE))
    {
        code->Save(&writer);
        writer.Close();
    }
}

template <typename T>
void LoadInto(const uint8_t* data, size_t size)
{
    KovexFuzz::ReadSerialized(data, size, [](Serializer& reader) {
        Ptr<T> code(new T());
        if (code->Load(&reader))
            Exercise(code.Get());
    });
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    LoadInto<PGMaterial>(data, size);
    LoadInto<PGFramework>(data, size);
    LoadInto<PGAttribute>(data, size);
    return 0;
}
