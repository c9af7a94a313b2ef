#!/usr/bin/env bash
# Installs what kep needs to build and test, from Debian's packages, when missing.
set -euo pipefail
packages=(build-essential cmake clang libfftw3-dev libnifti-dev zlib1g-dev libgtest-dev libreadline-dev
          python3 python3-numpy python3-scipy python3-nibabel python3-pytest python3-matplotlib python3-nipy
          python3-statsmodels python3-dipy time)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q "install ok installed" || missing+=("$p")
done
if [ ${#missing[@]} -gt 0 ]; then
  echo "Installing: ${missing[*]}"
  SUDO=""
  [ "$(id -u)" -ne 0 ] && SUDO=sudo
  $SUDO apt-get update -qq
  DEBIAN_FRONTEND=noninteractive $SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
fi
