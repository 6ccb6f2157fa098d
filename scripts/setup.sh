#!/usr/bin/env bash
# Installs every Debian package the add-in, its tests and its benchmarks need.
# Idempotent: packages already present are not touched, and apt's lists are
# refreshed only when something is missing.
set -euo pipefail

PACKAGES=(
  build-essential cmake ninja-build pkg-config git ccache
  clang libclang-rt-14-dev
  qt6-base-dev
  libopencv-dev
  libzxing-dev libdmtx-dev
  libpcl-dev libeigen3-dev
  libplist-dev libtiff-dev
  nlohmann-json3-dev
  libfreetype-dev libfontconfig-dev fonts-dejavu-core fonts-liberation2
  fonts-ocr-a fonts-ocr-b fonts-urw-base35 fonts-freefont-ttf fonts-noto-mono
  libgtest-dev libgmock-dev libbenchmark-dev
  xvfb xauth
  xdotool x11-utils imagemagick
  qrencode dmtx-utils zint barcode
  fonts-open-sans fonts-croscore fonts-crosextra-carlito fonts-crosextra-caladea fonts-go fonts-roboto-unhinted fonts-hack
  fonts-cantarell fonts-inconsolata fonts-jetbrains-mono fonts-firacode fonts-linuxlibertine fonts-b612 fonts-lato pango1.0-tools tesseract-ocr tesseract-ocr-eng
  fonts-inter fonts-mononoki fonts-anonymous-pro fonts-clear-sans fonts-sil-andika fonts-jura fonts-league-spartan fonts-roboto-slab fonts-sil-gentium
)

missing=()
for p in "${PACKAGES[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done

if ((${#missing[@]})); then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  echo "setup: installing ${missing[*]}"
  $SUDO apt-get update
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
