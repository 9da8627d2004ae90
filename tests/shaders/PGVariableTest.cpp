// Program variables reach a compiled program under their names: read back
// from the program's constant buffers and bindings, and a name the program
// does not read commits nothing.

#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "graphics/ConstantBuffer.h"
#include "graphics/GraphicsStream.h"
#include "graphics/RWBuffer.h"
#include "graphics/Texture.h"
#include "kernel/StringConv.h"
#include "shaders/PGCode.h"
#include "shaders/PGVariable.h"
#include "shaders/Program.h"
#include "shaders/ProgramManager.h"
#include "support/NullEngine.h"

using namespace KovexEngine;

namespace {

WString TemplatePath(const char* name)
{
    return StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/shaders/" + name).c_str());
}

// The bytes of the constant buffer that holds `name`, and where it lies.
struct ConstantBytes
{
    const uint8* base = nullptr;
    uint32 offset = 0;
    uint32 length = 0; // of the whole buffer
};

ConstantBytes Find(BaseProgram* program, const char16_t* name)
{
    ConstantBytes out;
    ShaderConstant* constant = program->FindConstant(name);
    if (!constant)
        return out;
    ConstantBuffer* buffer = program->GetConstantBuffer(constant->Location[1]);
    if (!buffer || !buffer->GetStream())
        return out;
    out.base = buffer->GetStream()->GetPointer(0);
    out.offset = constant->Location[0];
    out.length = uint32(buffer->GetStream()->GetLength());
    return out;
}

std::vector<uint8> Snapshot(BaseProgram* program)
{
    std::vector<uint8> all;
    for (unsigned i = 0; i < program->GetNumCBuffers(); ++i)
    {
        ConstantBuffer* buffer = program->GetConstantBuffer(i);
        if (buffer && buffer->GetStream())
        {
            const uint8* p = buffer->GetStream()->GetPointer(0);
            all.insert(all.end(), p, p + buffer->GetStream()->GetLength());
        }
    }
    return all;
}

const float* Floats(const ConstantBytes& c, uint32 byteOffset = 0)
{
    return reinterpret_cast<const float*>(c.base + c.offset + byteOffset);
}

// The shipped NoLighting framework with the triangle material, its diffuse
// texture switched on. The data root makes "[core]shaders/" the templates'
// directory for their own includes.
struct TrianglePrograms
{
    bool rooted = Kovex_Main_LoadRequiredData(
        StringConvFuncs::ToWString((std::string(KOVEX_SOURCE_DATA) + "/").c_str())());
    Ptr<PGFramework> fw = ProgramManager::Ins()->LoadFramework(TemplatePath("NoLighting.ksl"));
    Ptr<PGAttribute> ab = ProgramManager::Ins()->LoadAttribute(TemplatePath("Attribute_Base.ksl"));
    Ptr<PGMaterial> mt = ProgramManager::Ins()->LoadMaterial(TemplatePath("Material_Triangle.ksl"));
    Program* Textured()
    {
        PGConfMT* conf = mt->GetConfig(u"PGVariableTest.textured");
        if (!conf)
        {
            conf = mt->CreateConfig(u"PGVariableTest.textured");
            conf->SetMacro("USE_DIFFUSE_TEXTURE", "1");
        }
        return fw->GetCurConf()->GetProgram(ab->GetCurConf(), conf);
    }
};

// Arrays of each width, the member after them, and a read-write buffer.
const char* const kArraysUnit = R"(
cbuffer Clip
{
    float4 UserClipPlanes[4];
    float Weights[3];
    float2 Pairs[2];
    float After;
};
RWStructuredBuffer<float4> Counts : register(u1);
float4 VS(float3 p : POSITION) : SV_Position
{
    float4 r = float4(p, 1);
    for (int i = 0; i < 4; ++i)
        r.x += dot(UserClipPlanes[i], r);
    r.y += Weights[0] + Weights[1] + Weights[2] + After;
    r.zw += Pairs[0] + Pairs[1];
    return r;
}
float4 PS(float4 p : SV_Position) : SV_Target
{
    Counts[uint(p.x)] = p;
    return 1;
}
)";

} // namespace

TEST(PGVariable, VectorAndTextureReachTheTriangleProgram)
{
    KovexTest::NullEngine engine;
    TrianglePrograms t;
    ASSERT_TRUE(t.rooted && t.fw && t.ab && t.mt);
    Program* program = t.Textured();
    ASSERT_NE(program, nullptr);
    ASSERT_FALSE(program->IsFailed());

    // The default from the material's text is there first.
    ConstantBytes diffuse = Find(program, u"DiffuseColor");
    ASSERT_NE(diffuse.base, nullptr);
    EXPECT_EQ(Floats(diffuse)[0], 1.0f);

    Ptr<PGVector> colour(new PGVector(u"DiffuseColor"));
    colour->SetValue(Vector4(0.25f, 0.5f, 0.75f, 0.125f));
    std::vector<uint8> before = Snapshot(program);
    EXPECT_TRUE(colour->OnRenderBegin(program));
    EXPECT_EQ(Floats(diffuse)[0], 0.25f);
    EXPECT_EQ(Floats(diffuse)[1], 0.5f);
    EXPECT_EQ(Floats(diffuse)[2], 0.75f);
    EXPECT_EQ(Floats(diffuse)[3], 0.125f);
    // Only its own 16 bytes changed.
    std::vector<uint8> after = Snapshot(program);
    ASSERT_EQ(before.size(), after.size());
    unsigned changed = 0;
    for (size_t i = 0; i < before.size(); ++i)
        changed += before[i] != after[i];
    EXPECT_LE(changed, 16u);
    EXPECT_GT(changed, 0u);

    // A longer array than the constant: only the constant's bytes are written.
    Vector4 three[3] = {Vector4(1, 2, 3, 4), Vector4(5, 6, 7, 8), Vector4(9, 10, 11, 12)};
    colour->SetValues(three, 3);
    before = Snapshot(program);
    EXPECT_TRUE(colour->OnRenderBegin(program));
    EXPECT_EQ(Floats(diffuse)[3], 4.0f);
    after = Snapshot(program);
    changed = 0;
    for (size_t i = 0; i < before.size(); ++i)
        changed += before[i] != after[i];
    EXPECT_LE(changed, 16u);

    // Names the program does not read: nothing is committed, anywhere.
    before = Snapshot(program);
    Ptr<PGVector> stranger(new PGVector(u"DiffuseColour"));
    stranger->SetValue(Vector4(9, 9, 9, 9));
    EXPECT_FALSE(stranger->OnRenderBegin(program));
    Ptr<PGVector> unnamed(new PGVector());
    EXPECT_FALSE(unnamed->OnRenderBegin(program));
    EXPECT_FALSE(colour->OnRenderBegin(nullptr));
    EXPECT_EQ(Snapshot(program), before);

    // The texture is bound under its name; recycled, the variable holds
    // nothing, and committing then clears the binding.
    Ptr<Texture> image = Texture::Create2DRT(4, 4, GraphicsFormat::R8G8B8A8_UNORM);
    ASSERT_TRUE(image);
    Ptr<PGTexture> texture(new PGTexture(u"DiffuseTexture"));
    texture->SetTexture(image);
    EXPECT_TRUE(texture->OnRenderBegin(program));
    EXPECT_EQ(program->GetTexture(u"DiffuseTexture").Get(), image.Get());
    Ptr<PGTexture> elsewhere(new PGTexture(u"SpecularTexture"));
    elsewhere->SetTexture(Texture::Create2DRT(2, 2, GraphicsFormat::R8G8B8A8_UNORM));
    EXPECT_FALSE(elsewhere->OnRenderBegin(program));
    EXPECT_EQ(program->GetTexture(u"DiffuseTexture").Get(), image.Get());
    EXPECT_EQ(program->FindTexture(u"SpecularTexture"), nullptr);
    texture->OnRecycle();
    EXPECT_FALSE(texture->GetTexture());
    EXPECT_TRUE(texture->OnRenderBegin(program));
    EXPECT_FALSE(program->GetTexture(u"DiffuseTexture"));
}

TEST(PGVariable, StreamsFillArraysOneElementARegister)
{
    KovexTest::NullEngine engine;
    Ptr<PGFramework> fw(new PGFramework(u"PGVariableTest.arrays", u"", kArraysUnit));
    Program* program = fw->GetProgram();
    ASSERT_NE(program, nullptr);
    ASSERT_FALSE(program->IsFailed());
    ConstantBytes planes = Find(program, u"UserClipPlanes");
    ConstantBytes weights = Find(program, u"Weights");
    ConstantBytes pairs = Find(program, u"Pairs");
    ConstantBytes after = Find(program, u"After");
    ASSERT_TRUE(planes.base && weights.base && pairs.base && after.base);

    // Two planes of four: the first two registers, the others untouched.
    std::vector<uint8> before = Snapshot(program);
    Ptr<PGStream> clip(new PGStream(u"UserClipPlanes"));
    Vector4 two[2] = {Vector4(1, 0, 0, -1), Vector4(0, 1, 0, -2)};
    clip->SetVectors(two, 2);
    EXPECT_EQ(clip->GetCount(), 2u);
    EXPECT_TRUE(clip->OnRenderBegin(program));
    EXPECT_EQ(std::memcmp(Floats(planes), two, sizeof(two)), 0);
    EXPECT_EQ(std::memcmp(Floats(planes, 32), before.data() + planes.offset + 32, 32), 0)
        << "(one constant buffer: its bytes start the snapshot)";

    // Six planes into an array of four: the member behind it is not touched.
    const float afterBefore = *Floats(after);
    Vector4 six[6];
    for (int i = 0; i < 6; ++i)
        six[i] = Vector4(float(i), float(i), float(i), float(i));
    clip->SetVectors(six, 6);
    EXPECT_TRUE(clip->OnRenderBegin(program));
    EXPECT_EQ(Floats(planes, 48)[0], 3.0f);
    EXPECT_EQ(Floats(weights)[0], 0.0f);
    EXPECT_EQ(*Floats(after), afterBefore);

    // Scalars and pairs: one element at the start of each register.
    Ptr<PGStream> scalars(new PGStream(u"Weights"));
    const float w[3] = {0.5f, 1.5f, 2.5f};
    ASSERT_TRUE(scalars->SetData(w, 3, 1));
    EXPECT_TRUE(scalars->OnRenderBegin(program));
    EXPECT_EQ(Floats(weights, 0)[0], 0.5f);
    EXPECT_EQ(Floats(weights, 16)[0], 1.5f);
    EXPECT_EQ(Floats(weights, 32)[0], 2.5f);
    EXPECT_EQ(*Floats(after), afterBefore) << "the member after the array";
    Ptr<PGStream> pairsVar(new PGStream(u"Pairs"));
    const float p[4] = {1, 2, 3, 4};
    ASSERT_TRUE(pairsVar->SetData(p, 2, 2));
    EXPECT_TRUE(pairsVar->OnRenderBegin(program));
    EXPECT_EQ(Floats(pairs, 0)[1], 2.0f);
    EXPECT_EQ(Floats(pairs, 16)[0], 3.0f);
    EXPECT_EQ(Floats(pairs, 16)[1], 4.0f);

    // Refused shapes change nothing; an empty stream and a stranger commit
    // nothing.
    EXPECT_FALSE(pairsVar->SetData(p, 1, 5));
    EXPECT_FALSE(pairsVar->SetData(p, 1, 0));
    EXPECT_FALSE(pairsVar->SetData(nullptr, 1, 2));
    EXPECT_EQ(pairsVar->GetCount(), 2u);
    before = Snapshot(program);
    Ptr<PGStream> empty(new PGStream(u"Weights"));
    EXPECT_FALSE(empty->OnRenderBegin(program));
    Ptr<PGStream> stranger(new PGStream(u"ClipPlanes"));
    stranger->SetVectors(two, 2);
    EXPECT_FALSE(stranger->OnRenderBegin(program));
    EXPECT_EQ(Snapshot(program), before);

    // The read-write buffer goes to its binding; recycled, it is dropped.
    Ptr<RWBuffer> counts = RWBufferFactory::Get()->Create(GraphicsFormat::R32G32B32A32_FLOAT, 16, 8, 0,
                                                          GraphicsResourceUsage::Default, true);
    ASSERT_TRUE(counts);
    Ptr<PGBuffer> buffer(new PGBuffer(u"Counts"));
    buffer->SetBuffer(counts);
    EXPECT_TRUE(buffer->OnRenderBegin(program));
    EXPECT_EQ(program->GetBuffer(u"Counts").Get(), counts.Get());
    Ptr<PGBuffer> otherBuffer(new PGBuffer(u"Totals"));
    otherBuffer->SetBuffer(counts);
    EXPECT_FALSE(otherBuffer->OnRenderBegin(program));
    buffer->OnRecycle();
    EXPECT_FALSE(buffer->GetBuffer());
    EXPECT_TRUE(buffer->OnRenderBegin(program));
    EXPECT_FALSE(program->GetBuffer(u"Counts"));
}

TEST(PGVariable, ValuesAndClasses)
{
    // A vector holds one zero until set; growing by index pads with zeros,
    // up to what a constant buffer holds.
    Ptr<PGVector> v(new PGVector(u"V"));
    EXPECT_EQ(v->GetCount(), 1u);
    EXPECT_EQ(v->GetValue().x, 0.0f);
    v->SetValue(2, Vector4(1, 2, 3, 4));
    EXPECT_EQ(v->GetCount(), 3u);
    EXPECT_EQ(v->GetValue(2).w, 4.0f);
    EXPECT_EQ(v->GetValue(1).w, 0.0f);
    EXPECT_EQ(v->GetValue(7).x, 0.0f) << "past the end reads zero";
    v->SetValue(1u << 30, Vector4(1, 1, 1, 1));
    EXPECT_EQ(v->GetCount(), 3u);
    v->SetValues(nullptr, 0);
    EXPECT_EQ(v->GetCount(), 1u);

    // Reflected, each a kind of PGVariable.
    for (const Class* cls : {PGTexture::StaticGetClass(), PGBuffer::StaticGetClass(), PGVector::StaticGetClass(),
                             PGStream::StaticGetClass()})
    {
        EXPECT_TRUE(cls->IsKindOf(PGVariable::StaticGetClass()));
        EXPECT_TRUE(cls->IsKindOf(Object::StaticGetClass()));
        EXPECT_EQ(Class::GetClass(cls->GetName()), cls);
    }
    Ptr<PGVariable> base(new PGVariable(u"X"));
    EXPECT_FALSE(base->OnRenderBegin(nullptr));
}
