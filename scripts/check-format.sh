#!/usr/bin/env bash
# Fails on a source file that is not laid out as .clang-format says.
set -euo pipefail
# shellcheck source-path=SCRIPTDIR
source "$(dirname "${BASH_SOURCE[0]}")/lib.sh"

cd "$root"
# Somebody else's checkout is as good, and an empty list would pass for a clean one.
mapfile -t files < <(git -c safe.directory="$root" ls-files '*.h' '*.cpp')
((${#files[@]} > 0)) || fail 'check-format: no tracked sources'
clang-format --dry-run -Werror "${files[@]}"
