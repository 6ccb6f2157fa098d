# Shared pieces of the OCR bench scripts (sourced, not run).

# The family's characters, Tesseract's whitelist for that family.
declare -A alphabet=(
  [Industrial]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
  [Document]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-+:./#%()*="
  [DotPrint]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
  [OCRA]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
  [OCRB]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
)

# render_plan PLAN DIR: pango-view lays out and rasterises every planned
# marking into DIR/<id>.png (dot print without anti-aliasing).
render_plan() {
  local id family grade face px tilt text aa
  while IFS=$'\t' read -r id family grade face px tilt text; do
    aa=gray
    [ "$family" = DotPrint ] && aa=none
    pango-view -q --pixels --font="$face $px" --antialias=$aa --hinting=slight --margin=4 \
      --background=white --foreground=black --rotate="$tilt" --text="$text" -o "$2/$id.png" \
      2>/dev/null || true
  done <"$1"
}

# bench_workdir BUILD NAME: a scratch folder in $work, removed on exit, and
# the build's classifier files unless VELMORA_VISION_DIR names others.
bench_workdir() {
  work=$(mktemp -d "/tmp/ocr-$2-XXXXXX")
  trap 'rm -rf "$work"' EXIT
  export VELMORA_VISION_DIR=${VELMORA_VISION_DIR:-$(cd "$1" && pwd)/share/velmora/vision}
}
