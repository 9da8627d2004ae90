// A flat colour from a constant buffer, moved by an offset in the same one.
cbuffer Material : register(b0)
{
    float4 Color;
    float2 Offset;
};

float4 VS(float3 position : POSITION) : SV_Position
{
    return float4(position.xy + Offset, position.z, 1.0);
}

float4 PS() : SV_Target
{
    return Color;
}
