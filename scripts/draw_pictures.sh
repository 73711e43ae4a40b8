#!/usr/bin/env bash
# Redraws the pictures of the documents, with the orvel command that ./demo built or the one given.
#
#     scripts/draw_pictures.sh [ORVEL]
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/.."
orvel=${1:-build/demo/tools/orvel}

# Noise does not compress: its lower half is drawn in one colour.
"$orvel" plot examples/recordings/audio-crowded.wav --width 720 --height 380 --range 2:24 \
    -o docs/images/waterfall.png
