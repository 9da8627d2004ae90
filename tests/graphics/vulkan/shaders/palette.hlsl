// A colour read from a structured buffer at an index from a constant.
StructuredBuffer<float4> Palette : register(t1);
cbuffer Pick : register(b0)
{
    uint Index;
};

float4 VS(float3 position : POSITION) : SV_Position
{
    return float4(position, 1.0);
}

float4 PS() : SV_Target
{
    return Palette[Index];
}
