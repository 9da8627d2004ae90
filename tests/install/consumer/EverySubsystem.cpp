// Uses each subsystem through KovexEngine.h alone; built with -Werror, so a
// public header that warns, or one that the umbrella header leaves out,
// breaks this build.
#include <cstdio>

#include "KovexEngine.h"

using namespace KovexEngine;

namespace {
int failures = 0;
void Check(bool ok, const char* what)
{
    if (!ok)
    {
        std::fprintf(stderr, "failed: %s\n", what);
        ++failures;
    }
}
} // namespace

int main()
{
    g_IsNullRenderer = true;
    Kovex_Main_Initialize();
    Check(Kovex_Main_LoadRequiredData(nullptr), "the data root is found");

    // kernel
    WString text(u"Samples/greeting.res");
    TArray<int> numbers;
    numbers.Add(4);
    Check(text.EndsWith(u".res") && numbers.Count() == 1, "strings and containers");
    Log::Print(LOG_INFO, u"consumer: log works\n");

    // math
    Vector3 a(1, 2, 3);
    Check(a.x + a.y + a.z == 6.0f, "vectors");

    // reflection
    Check(Class::GetClass(WString(u"Vector3")) != nullptr, "the class registry");

    // io: the stream manager opens a file under the root
    Ptr<Stream> stream = StreamManager::Ins()->OpenStream(g_kovexRootPath + text);
    Check(stream && stream->Open() && stream->GetSize() > 0, "the stream manager");
    stream = nullptr;

    // resources and serialization
    Ptr<Resource> resource = Resource::LoadFromPath(text);
    Check(resource.Get() != nullptr, "a resource loads");
    Serializer::SetDefaultSerializer(false);
    resource = nullptr;

    // shaders: a material configuration and the macros it owns
    {
        Ptr<PGMaterial> material(new PGMaterial(u"consumer", u"", "float4 Surface() { return 1; }"));
        material->SetBlendMode(BlendMode::Mask);
        AString value;
        Check(material->FindMacro(value, "MTL_BLEND_MASK") &&
                  ProgramManager::Ins()->FindCode(PGCode::Material, u"consumer") == material.Get(),
              "the program generator");
    }

    Kovex_Main_Terminate();
    Kovex_Renderer_Terminate();
    Kovex_System_Terminate();
    Kovex_Main_Cleanup();
    Kovex_Renderer_Cleanup();
    Kovex_System_Cleanup();
    if (failures == 0)
        std::printf("every subsystem ok\n");
    return failures ? 1 : 0;
}
