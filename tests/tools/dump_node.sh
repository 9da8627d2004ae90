#!/usr/bin/env bash
# Drives kovex-dump on ".node" files: the scene tree in either form, and a
# file that holds no node.
set -euo pipefail
tool="$1"
corpus="$2"
work="$(mktemp -d)"
trap 'rm -rf "$work"' EXIT
cd "$work"

for form in bin xml; do
  cp "$corpus/nodes/tree.$form" tree.node
  "$tool" tree.node > tree.txt
  grep -q "^'root' Node \[Modifier\]  T(1, 2, 3) R(" tree.txt
  grep -q "S(1, 2, 0.5)  box " tree.txt
  grep -q "^  'a' Node  T(0, 1, 0) " tree.txt
  grep -q "^    'c' Node  T(0, 0, 0) R(0, 0, 0) S(1, 1, 1)  box empty$" tree.txt
  grep -q "^  'n' Node " tree.txt
  [ "$(wc -l < tree.txt)" -eq 4 ]
done
# A chain shows one level deeper per line.
cp "$corpus/nodes/chain.bin" chain.node
"$tool" chain.node > chain.txt
[ "$(wc -l < chain.txt)" -eq 13 ]
grep -q "^                        'odd' Node " chain.txt

# Failures: an object that is not a node, a damaged file.
cp "$corpus/serialized-bin/object" object.node
if "$tool" object.node 2> err.txt; then exit 1; fi
grep -q "cannot load the scene tree of 'object.node': it holds no node" err.txt
head -c 40 "$corpus/nodes/tree.bin" > cut.node
if "$tool" cut.node 2> err.txt; then exit 1; fi
grep -q "'cut.node'" err.txt
