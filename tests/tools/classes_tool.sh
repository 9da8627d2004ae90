#!/usr/bin/env bash
# Drives kovex-classes: wildcards anywhere in a name, case-insensitive
# matching, a warning and exit 1 for each pattern that matches nothing, and
# the command line every tool shares.
set -euo pipefail
tool="$1"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

"$tool" '*Serializer*' > out.txt
[ "$(grep -c '^class .*Serializer' out.txt)" -eq 3 ]
grep -q "^class XmlSerializer : Serializer" out.txt
"$tool" 'Vector?' | grep -q "^struct Vector2 "
"$tool" -i 'vECTOR3' | grep -q "^struct Vector3 "
"$tool" 'vECTOR3' --ignore-case | grep -q "^struct Vector3 "

set +e
"$tool" vector3 > out.txt 2> err.txt; [ $? -eq 1 ] || exit 1
grep -q "no class matches 'vector3'" err.txt
"$tool" Vector3 Nope 'Zz*' > out.txt 2> err.txt; [ $? -eq 1 ] || exit 1
grep -q "^struct Vector3 " out.txt
grep -q "no class matches 'Nope'" err.txt
grep -q "no class matches 'Zz\*'" err.txt
"$tool" --frobnicate 2> err.txt; [ $? -eq 2 ] || exit 1
grep -q "unknown option '--frobnicate'" err.txt
"$tool" --data "$work/none" Vector3 2> err.txt; [ $? -eq 1 ] || exit 1
grep -q "data directory .* does not exist" err.txt
set -e

# The device buffers and textures, with their streams, as a user browses them.
"$tool" '*Buffer' '*Buffer::*' Texture InputLayout GraphicsStream3 Rect > out.txt
for line in "class VertexBuffer : GraphicsBuffer" "class IndexBuffer : GraphicsBuffer" \
    "class ConstantBuffer : GraphicsBuffer" "class RWBuffer : GraphicsBuffer" "class GraphicsBuffer : GraphicsResource" \
    "class Texture : GraphicsResource" "class InputLayout : GraphicsObject" \
    "class VertexBuffer::DynamicStream : VertexBuffer::Stream" "class IndexBuffer::Stream : GraphicsStream2" \
    "class ConstantBuffer::Stream : GraphicsStream3" "class RWBuffer::DynamicStream : RWBuffer::Stream" \
    "class NullConstantBuffer : ConstantBuffer" "class NullRWBuffer : RWBuffer" "struct Rect "; do
  grep -q "^$line" out.txt || { echo "missing: $line" >&2; exit 1; }
done
grep -A4 "^struct Rect " out.txt | grep -q "property int32 left"
"$tool" Renderer > out.txt
grep -q "function void SetViewportRect(const Rect& rect)" out.txt

"$tool" Vector3 --module Engine | grep -q "^struct Vector3 "
"$tool" --help > help.txt
grep -q "^usage: kovex-classes" help.txt
grep -q "Exit status" help.txt
"$tool" --version | grep -q "^kovex-classes (KovexEngine) "
echo "classes tool ok"
