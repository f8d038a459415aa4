#!/usr/bin/env bash
# Installs the Debian 12 packages the build needs, skipping those present.
set -euo pipefail
packages=(g++ make cmake pkg-config liblzo2-dev libgtest-dev libgmock-dev doxygen man-db
          unixodbc unixodbc-dev libsqliteodbc python3-pyodbc python3-pytest sqlite3
          clang libclang-rt-14-dev systemd
          postgresql odbc-postgresql)
missing=()
for p in "${packages[@]}"; do
  dpkg-query -W -f='${Status}' "$p" 2>/dev/null | grep -q 'install ok installed' || missing+=("$p")
done
[ ${#missing[@]} -eq 0 ] && exit 0
echo "installing: ${missing[*]}"
sudo=""
[ "$(id -u)" -ne 0 ] && sudo=sudo
export DEBIAN_FRONTEND=noninteractive
# The tests run PostgreSQL clusters of their own: installing the server must
# not create (and start) a system cluster.
if [[ " ${missing[*]} " == *" postgresql "* ]] && [ ! -e /etc/postgresql-common/createcluster.conf ]; then
  $sudo mkdir -p /etc/postgresql-common
  echo "create_main_cluster = false" | $sudo tee /etc/postgresql-common/createcluster.conf >/dev/null
fi
$sudo apt-get update -qq
$sudo apt-get install -y -qq --no-install-recommends "${missing[@]}"
