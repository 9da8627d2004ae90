// A texture tinted by a constant; the texture and its sampler carry the
// prefixes the engine's compiled names have.
cbuffer Material : register(b0)
{
    float4 Tint;
};
Texture2D kovex_t_Albedo : register(t0);
SamplerState kovex_s_Albedo : register(s0);

struct VSOut
{
    float4 position : SV_Position;
    float2 uv : TEXCOORD0;
};

VSOut VS(float3 position : POSITION, float2 uv : TEXCOORD0)
{
    VSOut o;
    o.position = float4(position, 1.0);
    o.uv = uv;
    return o;
}

float4 PS(VSOut i) : SV_Target
{
    return Tint * kovex_t_Albedo.Sample(kovex_s_Albedo, i.uv);
}
