#!/usr/bin/env bash
# Installs what a task needs and this machine lacks, from Debian 12.
#
# usage: setup_debian.sh TASK...     tasks: build test check
set -euo pipefail

# shellcheck disable=SC2034  # the lists are used by their names
build=(g++ cmake ninja-build pkgconf
  libsqlite3-dev libxxhash-dev liblz4-dev libfmt-dev libspdlog-dev
  libcli11-dev nlohmann-json3-dev libutf8proc-dev libzstd-dev)
# shellcheck disable=SC2034
test=(libgtest-dev libgmock-dev librapidcheck-dev liblmdb-dev sqlite3 locales)
# shellcheck disable=SC2034
check=(git clang-14 clang-format-14 clang-tidy-14 libclang-rt-14-dev)

if ! command -v dpkg-query >/dev/null; then
  echo "Not a Debian system: the packages are expected to be here already." >&2
  exit 0
fi

missing=()
for task in "$@"; do
  case $task in build | test | check) ;; *) echo "unknown task: $task" >&2 && exit 2 ;; esac
  declare -n packages=$task
  for package in "${packages[@]}"; do
    status=$(dpkg-query -W -f '${db:Status-Status}' "$package" 2>/dev/null || true)
    [[ $status == installed* ]] || missing+=("$package")
  done
done
((${#missing[@]})) || exit 0

as_root=()
((EUID == 0)) || as_root=(sudo)
echo "Installing: ${missing[*]}" >&2
export DEBIAN_FRONTEND=noninteractive
"${as_root[@]}" apt-get -qq update
"${as_root[@]}" apt-get -qq install -y --no-install-recommends "${missing[@]}" >/dev/null
