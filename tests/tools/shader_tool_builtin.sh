#!/usr/bin/env bash
# Drives kovex-shader on the engine's built-in codes: the listing of codes,
# configurations and macros, compiling by name, and the failures it must
# report with their causes and exit codes.
set -euo pipefail
tool="$1"
data="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

"$tool" --help | grep -q "^       kovex-shader --builtin CODE\[:CONFIG\]"
"$tool" --help | grep -q "^3 an unknown built-in code or configuration name"

# --list: every code in the engine's order, configurations with their macros
# and descriptions.
"$tool" --list --data "$data" > list.txt
head -1 list.txt | grep -q "^MT_Triangle material \[core\]shaders/Material_Triangle.ksl$"
grep -q "^FW_DrawClear framework \[core\]shaders/DrawClear.ksl$" list.txt
[ "$(grep -v '^ ' list.txt | tail -1 | cut -d' ' -f1)" = FW_Wireframe ]
[ "$(grep -vc '^ ' list.txt)" -eq 46 ]
! grep -q "not loaded" list.txt
# The configurations of one code: the lines between its header and the next.
section() { awk -v code="$1" '/^[^ ]/ { on = ($1 == code) } on' list.txt; }
section FW_DrawClear > clear.txt
grep -q "^  config NUM_RT_1 \*$" clear.txt
awk '/^  config NUM_RT_3/ { on = 1; next } /^  config/ { on = 0 } on' clear.txt > rt3.txt
grep -qx "    macro CLEAR_RT_0=1" rt3.txt
grep -qx "    macro CLEAR_RT_2=1" rt3.txt
grep -qx "    macro NUM_RT=3" rt3.txt
! grep -q "CLEAR_RT_3" rt3.txt
section AB_Base | grep -qx "    macro USE_INSTANCE_RENDERING=1"
section FW_Wireframe | grep -qx "    macro USE_SOLD_WIRE=1"
section FW_SpotLightDeferred > spot.txt
for name in "DEFAULT" "DEFAULT[SQ_LOW]" "DEFAULT[SQ_MEDIUM]" "DEFAULT[SQ_HIGH]" "DEFAULT[SQ_LOW][HWPCF]" \
            "DEFAULT[SQ_MEDIUM][HWPCF]" "DEFAULT[SQ_HIGH][HWPCF]"; do
  grep -qF "  config $name" spot.txt || { echo "FW_SpotLightDeferred lacks $name"; exit 1; }
done
grep -q "^    texture RotRandomTexture \[core\]textures/rotrandom.dds" spot.txt
grep -q "^    sampler ShadowDepthTexture filter .* comparison LessEqual$" spot.txt
section AB_Font | grep -q "^    texture FontTexture config$"

# --builtin: one program by names; macros in the engine's order, then the
# stages with their reflection, as compile prints them.
"$tool" --builtin FW_DrawClear:NUM_RT_3 --data "$data" -o clear > clear3.txt
grep -qx "program FW_DrawClear:NUM_RT_3" clear3.txt
grep -qx "  macro NUM_RT=3" clear3.txt
grep -q "^stage VS (vs_5_0) [0-9]* bytes$" clear3.txt
grep -q "^stage PS (ps_5_0) [0-9]* bytes$" clear3.txt
grep -q "ClearColor2 " clear3.txt
[ -s clear.VS.spv ] && [ -s clear.PS.spv ]
if command -v spirv-val >/dev/null; then
  spirv-val --target-env vulkan1.1 clear.VS.spv
  spirv-val --target-env vulkan1.1 clear.PS.spv
fi
"$tool" --builtin MT_Triangle "AB_Base:DEFAULT[INSTANCE_RENDERING]" FW_NoLighting --data "$data" > triangle.txt
grep -qx "program FW_NoLighting:DEFAULT AB_Base:DEFAULT\[INSTANCE_RENDERING\] MT_Triangle:DEFAULT" triangle.txt
ab=$(grep -n "^  macro USE_INSTANCE_RENDERING=1$" triangle.txt | cut -d: -f1)
mt=$(grep -n "^  macro MTL_BLEND_OPAQUE=1$" triangle.txt | cut -d: -f1)
[ -n "$ab" ] && [ -n "$mt" ] && [ "$ab" -lt "$mt" ]
grep -Eq "^    DiffuseColor +offset" triangle.txt

# Failures: each with its cause; unknown names exit 3, usage errors 2,
# failures 1.
fail() { # expected-status pattern command...
  local want="$1" pattern="$2"; shift 2
  set +e; "$@" > out.txt 2> err.txt; local got=$?; set -e
  [ "$got" -eq "$want" ] || { echo "exit $got, wanted $want: $*"; cat err.txt; exit 1; }
  grep -q -- "$pattern" err.txt || { echo "no '$pattern' from: $*"; cat err.txt; exit 1; }
}
fail 3 "unknown built-in code 'FW_Nowhere'" "$tool" --builtin FW_Nowhere --data "$data"
fail 3 "FW_DrawClear has no configuration 'NUM_RT_9' (it has: .*NUM_RT_8" \
  "$tool" --builtin FW_DrawClear:NUM_RT_9 --data "$data"
fail 3 "AB_Base has no configuration ''" "$tool" --builtin FW_NoLighting AB_Base: --data "$data"
fail 2 "two frameworks given" "$tool" --builtin FW_DrawNull FW_DrawClear --data "$data"
fail 2 "needs a framework" "$tool" --builtin AB_Base MT_Triangle --data "$data"
fail 2 "needs at least a framework" "$tool" --builtin --data "$data"
fail 2 "takes no operands" "$tool" --list FW_DrawClear --data "$data"
fail 2 "go alone" "$tool" --list --builtin FW_DrawClear
fail 2 "belongs to preprocess and compile" "$tool" --builtin FW_DrawClear -D X=1
fail 2 "belongs to --list and --builtin" "$tool" compile x.ksl --data "$data"
fail 1 "does not exist" "$tool" --list --data "$work/nowhere"

# A data root with one file missing and one that does not compile.
cp -r "$data" broken
rm broken/shaders/Material_Font.ksl
printf 'float4 PS() : SV_Target { return undefined_thing; }\n' >> broken/shaders/DrawNull.ksl
fail 1 "1 built-in codes did not load" "$tool" --list --data broken
grep -qx "MT_Font material \[core\]shaders/Material_Font.ksl not loaded" out.txt
grep -q "^FW_DrawClear framework" out.txt
fail 1 "MT_Font did not load from its file" "$tool" --builtin FW_NoLighting MT_Font --data broken
fail 1 "program FW_DrawNull:DEFAULT AB_Base:DEFAULT MT_Triangle:DEFAULT failed to compile" \
  "$tool" --builtin FW_DrawNull AB_Base MT_Triangle --data broken
grep -q "undefined_thing" err.txt
# A framework that includes its attribute, compiled without one.
fail 1 "Shader include \[Attribute\] has no code" "$tool" --builtin FW_NoLighting MT_Triangle --data "$data"
echo "kovex-shader built-ins: all checks passed"
