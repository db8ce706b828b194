#!/usr/bin/env bash
# Installs what building and testing zrimap needs on Debian, and nothing when
# everything is already there (one dpkg query, no apt-get call).
set -euo pipefail

packages=(
  g++ cmake ninja-build pkg-config
  clang libclang-rt-14-dev
  libgtest-dev libgmock-dev libbenchmark-dev
  libssl-dev openssl libssh2-1-dev libcurl4-openssl-dev nlohmann-json3-dev
  python3
  dovecot-core dovecot-imapd openssh-server openssh-client
)

missing=()
for p in "${packages[@]}"; do
  status=$(dpkg-query -W -f='${Status}' "$p" 2>/dev/null || true)
  [[ "$status" == "install ok installed" ]] || missing+=("$p")
done
[[ ${#missing[@]} -eq 0 ]] && exit 0

echo "setup: installing ${missing[*]}"
SUDO=""
[[ $(id -u) -eq 0 ]] || SUDO="sudo"

# Package scripts must not start system-wide daemons (a Dovecot on port 143,
# an sshd on 22): the tests start their own on 127.0.0.1 only.
policy=/usr/sbin/policy-rc.d
own_policy=0
if [[ ! -e $policy ]]; then
  printf '#!/bin/sh\nexit 101\n' | $SUDO tee $policy >/dev/null
  $SUDO chmod +x $policy
  own_policy=1
fi
cleanup() {
  if [[ $own_policy -eq 1 ]]; then $SUDO rm -f $policy; fi
}
trap cleanup EXIT

export DEBIAN_FRONTEND=noninteractive
$SUDO apt-get update -qq
$SUDO apt-get install -y -qq --no-install-recommends "${missing[@]}" >/dev/null
echo "setup: done"
exit 0
