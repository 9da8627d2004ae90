#include <gtest/gtest.h>

#include <cstring>

#include "graphics/ShaderResource.h"
#include "shaders/ShaderParser.h"

using namespace KovexEngine;

namespace {

using Info = ShaderParser::VarInfo;

Info Type(int type, unsigned count = 1)
{
    Info info;
    info.Type = type;
    info.Count = count;
    return info;
}

// A constant as reflection makes it: a name and a size in bytes.
struct Constant
{
    Ptr<ShaderConstant> c{new ShaderConstant()};
    Constant(const char16_t* name, uint32 size)
    {
        c->SetName(TSharedString<WString>(WString(name)));
        c->SetSize(size);
    }
    ShaderConstant* operator->() { return c.Get(); }
    ShaderConstant* Get() { return c.Get(); }
};

} // namespace

TEST(ShaderParser, TypesAndSpellings)
{
    EXPECT_TRUE(ShaderParser::IsTypeMatch("float", Type(0)));
    EXPECT_TRUE(ShaderParser::IsTypeMatch("float1", Type(0)));
    EXPECT_TRUE(ShaderParser::IsTypeMatch("vector<float,1>", Type(0)));
    EXPECT_TRUE(ShaderParser::IsTypeMatch("vector<float,3>", Type(2)));
    EXPECT_TRUE(ShaderParser::IsTypeMatch("matrix<float,4,3>", Type(4)));
    EXPECT_TRUE(ShaderParser::IsTypeMatch("float4x4", Type(5)));
    EXPECT_FALSE(ShaderParser::IsTypeMatch("float4", Type(2)));
    EXPECT_FALSE(ShaderParser::IsTypeMatch("float", Type(3)));
    EXPECT_FALSE(ShaderParser::IsTypeMatch("float4", Type(9)));
    EXPECT_EQ(ShaderParser::GetComponents(Type(4)), 12u);
    EXPECT_EQ(ShaderParser::GetComponents(Type(-1)), 0u);
    EXPECT_EQ(ShaderParser::TypeOf(1, 1), 0);
    EXPECT_EQ(ShaderParser::TypeOf(4, 1), 3);
    EXPECT_EQ(ShaderParser::TypeOf(4, 3), 4);
    EXPECT_EQ(ShaderParser::TypeOf(4, 4), 5);
    EXPECT_EQ(ShaderParser::TypeOf(3, 3), -1);
}

TEST(ShaderParser, TokensAndStrings)
{
    const char* text = "x = 1;\n\tFloat4   Tint = float4(1, 0, 0, 1);";
    const char* name = std::strstr(text, "Tint");
    AString token;
    ASSERT_TRUE(ShaderParser::GetLastToken(token, text, name));
    EXPECT_TRUE(token == "float4"); // lower-cased, blanks gone
    // Nothing but blanks back to a statement end: no token.
    const char* after = "a;   b";
    EXPECT_FALSE(ShaderParser::GetLastToken(token, after, after + 2));
    EXPECT_FALSE(ShaderParser::GetLastToken(token, text, text));

    AString rest;
    ASSERT_TRUE(ShaderParser::GetNextString(rest, name + 4, Type(3)));
    EXPECT_TRUE(rest == "1,0,0,1");
    // "float1(" loses the whole constructor word, not only "float".
    ASSERT_TRUE(ShaderParser::GetNextString(rest, " = float1(2.5);", Type(0)));
    EXPECT_TRUE(rest == "2.5");
    ASSERT_TRUE(ShaderParser::GetNextString(rest, " = {1,2, 3};  float4 next = 7;", Type(2)));
    EXPECT_TRUE(rest == "1,2,3");
    EXPECT_FALSE(ShaderParser::GetNextString(rest, " = float4(1,2,3,4)", Type(3)));
}

TEST(ShaderParser, DefaultsFromDeclarations)
{
    {
        Constant tint(u"Tint", 16);
        ShaderParser::GetDefaultValue("float4 Tint = float4(1, 0, 0.5, 1);", Type(3), tint.Get());
        ASSERT_NE(tint->GetDefaultValue(), nullptr);
        EXPECT_FLOAT_EQ(tint->GetDefaultValue()[2], 0.5f);
        EXPECT_FLOAT_EQ(tint->GetDefaultValue()[3], 1.0f);
    }
    {
        // "Color" inside "BaseColor" and a use in an expression are no
        // declarations; the search goes on to the real one.
        Constant color(u"Color", 16);
        const char* text = "float4 BaseColor = float4(9,9,9,9);\nfloat4 x = Color * 2;\n"
                           "float4 Color = float4(0.25, 0.5, 0.75, 1);\n";
        ShaderParser::GetDefaultValue(text, Type(3), color.Get());
        ASSERT_NE(color->GetDefaultValue(), nullptr);
        EXPECT_FLOAT_EQ(color->GetDefaultValue()[0], 0.25f);
    }
    {
        // Three numbers for four components: no default.
        Constant c(u"c", 16);
        ShaderParser::GetDefaultValue("float4 c = float4(1,2,3);", Type(3), c.Get());
        EXPECT_EQ(c->GetDefaultValue(), nullptr);
        // A declaration without an initialiser, or of another type.
        ShaderParser::GetDefaultValue("float4 c;\nfloat3 c = float3(1,2,3);", Type(3), c.Get());
        EXPECT_EQ(c->GetDefaultValue(), nullptr);
    }
    {
        // An array fills its packed floats when its size is exactly that...
        Constant v(u"v", 24);
        ShaderParser::GetDefaultValue("float3 v[2] = {1,2,3,4,5,6};", Type(2, 2), v.Get());
        ASSERT_NE(v->GetDefaultValue(), nullptr);
        EXPECT_FLOAT_EQ(v->GetDefaultValue()[5], 6.0f);
        // ...and sets nothing when the constant is padded.
        Constant padded(u"v", 32);
        ShaderParser::GetDefaultValue("float3 v[2] = {1,2,3,4,5,6};", Type(2, 2), padded.Get());
        EXPECT_EQ(padded->GetDefaultValue(), nullptr);
    }
    {
        // A scalar, a semantic-like follower, a float4x4, a wrong count of numbers.
        Constant s(u"Scale", 4);
        ShaderParser::GetDefaultValue("static const int k = 1; float Scale : packoffset(c0) = 2.5;", Type(0),
                                      s.Get());
        // ":" may follow a name, but then the text up to ";" is no number
        // list: no default rather than a silent 0.
        EXPECT_EQ(s->GetDefaultValue(), nullptr);
        ShaderParser::GetDefaultValue("float Scale = 1.5 + 2;", Type(0), s.Get());
        EXPECT_EQ(s->GetDefaultValue(), nullptr);
        ShaderParser::GetDefaultValue("float Scale = -2.5e1f;", Type(0), s.Get());
        ASSERT_NE(s->GetDefaultValue(), nullptr);
        EXPECT_FLOAT_EQ(s->GetDefaultValue()[0], -25.0f);
        Constant m(u"M", 64);
        ShaderParser::GetDefaultValue("float4x4 M = {1,0,0,0, 0,1,0,0, 0,0,1,0, 7,8,9,1};", Type(5), m.Get());
        ASSERT_NE(m->GetDefaultValue(), nullptr);
        EXPECT_FLOAT_EQ(m->GetDefaultValue()[13], 8.0f);
    }
    // Null arguments do nothing.
    Constant n(u"n", 4);
    ShaderParser::GetDefaultValue(nullptr, Type(0), n.Get());
    ShaderParser::GetDefaultValue("float n = 1;", Type(0), nullptr);
    EXPECT_EQ(n->GetDefaultValue(), nullptr);
    EXPECT_FALSE(ShaderParser::ParseDefault("1", Type(0), nullptr));
    Constant zero(u"z", 0);
    EXPECT_FALSE(ShaderParser::ParseDefault("1", Type(0), zero.Get()));
}
