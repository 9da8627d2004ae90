#!/usr/bin/env bash
# Drives kovex-shader: a framework with an attribute, a material and macros
# preprocessed and compiled, its reflection read back, and the failures it
# must report with their causes and exit codes.
set -euo pipefail
tool="$1"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"
mkdir -p shaders
cat > shaders/Common.ksl <<'KSL'
#include "Common.ksl"
float3 Brighten(float3 c) { return c * BRIGHTNESS; }
KSL
cat > shaders/Forward.ksl <<'KSL'
#include "Common.ksl"
cbuffer PerFrame : register(b0)
{
    float4x4 ViewProj;
    float Weights[2];
    float After;
};
#include "Attribute"
#include "Material"
struct VOut { float4 pos : SV_Position; float2 uv : TEXCOORD0; };
VOut VS(VIn i)
{
    VOut o;
    o.pos = mul(float4(i.position, 1), ViewProj) * Weights[1] * After;
    o.uv = i.uv;
    return o;
}
float4 PS(VOut i) : SV_Target { return float4(Brighten(Surface(i.uv)), 1); }
KSL
cat > attribute.ksl <<'KSL'
struct VIn { float2 uv : TEXCOORD0; float3 position : POSITION; };
KSL
cat > material.ksl <<'KSL'
Texture2D kovex_t_Albedo : register(t1);
SamplerState kovex_s_Albedo : register(s1);
float4 Tint = float4(1, 0.5, 0.25, 1);
float3 Surface(float2 uv)
{
    return kovex_t_Albedo.Sample(kovex_s_Albedo, uv).rgb * Tint.rgb;
}
KSL

# --help and --version on standard output, exit 0.
"$tool" --help | grep -q "^usage: kovex-shader preprocess FRAMEWORK"
"$tool" --help | grep -q "^Exit status: 0 success, 1 failure"
"$tool" --version | grep -q "kovex-shader"

# preprocess: macros applied, codes in, each file once, origins kept.
"$tool" preprocess shaders/Forward.ksl -a attribute.ksl -m material.ksl -D BRIGHTNESS=2.5 > unit.txt
grep -q "c \* 2.5" unit.txt
grep -q "Surface" unit.txt
grep -q '^#line 1 "material.ksl"$' unit.txt
[ "$(grep -c "float3 Brighten" unit.txt)" -eq 1 ]
! grep -q BRIGHTNESS unit.txt

# compile: both stages, reflection with offsets and bindings.
"$tool" compile shaders/Forward.ksl -a attribute.ksl -m material.ksl -D BRIGHTNESS -o mod > reflect.txt
grep -q "^stage VS (vs_5_0) [0-9]* bytes$" reflect.txt
grep -q "^stage PS (ps_5_0) [0-9]* bytes$" reflect.txt
grep -Eq "^    ViewProj +offset +0 size +64 matrix 4x4 stride 16" reflect.txt
grep -Eq "^    Weights +offset +64 size +32 array 2 stride 16$" reflect.txt
grep -Eq "^    After +offset +96 size +4$" reflect.txt
grep -q "^  texture kovex_t_Albedo set 0 binding 17$" reflect.txt
grep -q "^  sampler kovex_s_Albedo set 0 binding 33$" reflect.txt
grep -Eq '^  cbuffer \$Global set 0 binding [0-9]+ size 16$' reflect.txt
grep -q "^  input POSITION0 location [01] components 3" reflect.txt
grep -q "^  input TEXCOORD0 location [01] components 2" reflect.txt
[ -s mod.VS.spv ] && [ -s mod.PS.spv ]
if command -v spirv-val >/dev/null; then
  spirv-val --target-env vulkan1.1 mod.VS.spv
  spirv-val --target-env vulkan1.1 mod.PS.spv
fi

# Failures: each with its cause and exit 1; usage errors exit 2.
fail() { # expected-status pattern command...
  local want="$1" pattern="$2"; shift 2
  set +e; "$@" > out.txt 2> err.txt; local got=$?; set -e
  [ "$got" -eq "$want" ] || { echo "exit $got, wanted $want: $*"; cat err.txt; exit 1; }
  grep -q -- "$pattern" err.txt || { echo "no '$pattern' from: $*"; cat err.txt; exit 1; }
}
fail 1 "does not exist" "$tool" preprocess missing.ksl
fail 1 "no --material was given" "$tool" preprocess shaders/Forward.ksl -a attribute.ksl
printf '#include "Nowhere.ksl"\n' > shaders/Broken.ksl
fail 1 "include '.*Nowhere.ksl' does not exist" "$tool" preprocess shaders/Broken.ksl
sed 's/Tint.rgb/Tnit.rgb/' material.ksl > typo.ksl
fail 1 "typo.ksl:6" "$tool" compile shaders/Forward.ksl -a attribute.ksl -m typo.ksl -D BRIGHTNESS
fail 1 "stage VS (vs_5_0) failed to compile" "$tool" compile shaders/Forward.ksl -a attribute.ksl -m typo.ksl -D BRIGHTNESS
sed 's/\* Tint.rgb/* noise(float3(uv, 0))/' material.ksl > crash.ksl
fail 1 "noise() is not supported" "$tool" compile shaders/Forward.ksl -a attribute.ksl -m crash.ksl -D BRIGHTNESS
fail 2 "unknown command" "$tool" explode shaders/Forward.ksl
fail 2 "needs one FRAMEWORK" "$tool" compile
fail 2 "belongs to compile" "$tool" preprocess shaders/Forward.ksl -o x
echo "kovex-shader: all checks passed"
