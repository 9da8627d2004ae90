// A geometry stage that passes each triangle on, moved right by 1 in clip
// space, so its pixels show that it ran.
struct V
{
    float4 position : SV_Position;
};

[maxvertexcount(3)]
void GS(triangle V input[3], inout TriangleStream<V> output)
{
    for (int i = 0; i < 3; ++i)
    {
        V v = input[i];
        v.position.x += 1.0;
        output.Append(v);
    }
}
