#!/usr/bin/env bash
# Bad arguments, bad files, full disks and interrupts: outputs are whole or as they were.
source "$(dirname "$0")/tool_support.sh"

# Bad arguments and files.
asc 64 64 10 '(x - 32) * (y - 32)' >even.asc
expect 64 "a command is missing"
expect 64 "did you mean \`tarn shape\`?" shap "$terrain" out.tif
expect 64 "did you mean --rate?" shape "$terrain" --ratee 3
expect 64 "one argument too many" info "$terrain" "$terrain"
expect 0 '"default":-0.5' options --json
expect 64 "OUT" shape "$terrain"
expect 64 "not a finite number" shape "$terrain" out.tif --rate nan
expect 64 "not from 0 to 1" shape "$terrain" out.tif --blend 1.5
expect 64 "not a number above 0" shape "$terrain" out.tif --level-divisor 0
expect 64 "--fit" shape "$terrain" out.tif --fit squeeze
expect 64 "must end in" shape "$terrain" out.xyz
expect 64 "must end in .png" preview "$terrain" out.tif
expect 64 "no difference can be drawn" preview "$terrain" out.png --difference even.asc
expect 66 "cannot read 'nothing.tif'" shape nothing.tif out.tif
expect 66 "cannot read 'nothing.exr'" shape nothing.exr out.tif
expect 66 "cannot read 'nothing.asc'" shape "$terrain" out.tif --mask nothing.asc
echo "no raster" >text.tif
expect 66 "cannot read 'text.tif'" shape text.tif out.tif
expect 73 "there is no folder 'nowhere'" shape "$terrain" nowhere/out.tif
expect 73 "there is no folder 'nowhere'" shape "$terrain" out.tif --preview nowhere/out.png
mkdir folder.tif
expect 73 "cannot write 'folder.tif': it is no file" shape "$terrain" folder.tif
[[ -e out.tif ]] && fail "a refused run left out.tif behind"
[[ -z "$("$tarn" --quiet shape "$terrain" quiet.tif 2>&1)" ]] || fail "--quiet is not quiet"
expect 0 "" --version
expect 64 "is named for two outputs" weather "$terrain" out.tif --depth-out ./out.tif
cp "$terrain" big.tif
ln -s big.tif link.tif
expect 64 "is named for two outputs" weather "$terrain" big.tif --depth-out link.tif

# A full disk, an interrupt and a late refusal leave what was there, whole, and nothing beside it.
intact() { # intact WHAT FILE ALIKE...: the file is like one of these
    local what=$1 file=$2 alike
    shift 2
    for alike; do cmp -s "$file" "$alike" && break; done
    cmp -s "$file" "$alike" || fail "$what: $file is spoilt"
    [[ -z "$(ls -A | grep '^\.tarn')" ]] || fail "$what left $(ls -A | grep '^\.tarn') behind"
}
for ending in tif asc png exr; do
    "$tarn" -q shape even.asc kept.$ending
    cp kept.$ending before
    said=$( (ulimit -f 20 && exec "$tarn" -q shape "$terrain" kept.$ending) 2>&1)
    [[ $? == 73 && "$said" == "tarn: error: cannot write 'kept.$ending': File too large" ]] || fail "a full disk: $said"
    intact "a full disk" kept.$ending before
done
"$tarn" -q shape even.asc old.asc
"$tarn" -q weather "$terrain" new.asc --duration 0
for signal in INT TERM; do
    for delay in 0.05 0.1 0.15 0.2 0.3 0.4 0.6; do
        cp old.asc kept.asc
        timeout --signal $signal $delay "$tarn" -q weather "$terrain" kept.asc --duration 0 2>/dev/null
        intact "SIG$signal after $delay s" kept.asc old.asc new.asc
    done
done

finish
