#!/bin/bash
# Folders are layers: a file includes only its own layer and those below it.
# Usage: layering.sh ENGINE_DIR
set -u
engine=${1:?engine directory}
declare -A rank=([math]=0 [kernel]=0 [reflection]=1 [commands]=2 [io]=3 [serialization]=4 [resources]=5 [graphics]=6 [images]=7 [shaders]=8 [scene]=9 [animation]=10 [lifecycle]=11)
# images sits on graphics (the format table, TextureDesc); graphics makes textures from images through a hook it exposes, never an include.
status=0
for layer in "${!rank[@]}"; do
    [ -d "$engine/$layer" ] || continue
    while IFS= read -r hit; do
        file=${hit%%:*}
        target=$(sed -E 's/.*#include "([a-z]+)\/.*/\1/' <<<"$hit")
        [ -n "${rank[$target]+set}" ] || continue
        if [ "${rank[$target]}" -gt "${rank[$layer]}" ]; then
            echo "layering: ${file#$engine/} ($layer) includes $target, which lies above it"
            status=1
        fi
    done < <(grep -rHE '^\s*#\s*include "[a-z]+/' "$engine/$layer" --include='*.h' --include='*.cpp')
done
[ $status -eq 0 ] && echo "layering: every include points down"
exit $status
