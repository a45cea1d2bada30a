#!/usr/bin/env bash
# Does what docs/tutorial.md says, with an installed copy of the library: the commands are the page's.
#
#   check_tutorial.sh PROJECT_DIRECTORY BUILD_DIRECTORY
set -euo pipefail
source=$1 build=$2 here=$(cd "$(dirname "$0")" && pwd)
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT

mkdir "$work/installed"
cmake --install "$build" --prefix "$work/installed" >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
package=$(find "$work/installed" -name nfslib.pc)
if [ -z "$package" ]; then
  echo "This build installs nothing: the tutorial cannot be followed."
  exit 77
fi
export CMAKE_PREFIX_PATH="$work/installed" PKG_CONFIG_PATH=${package%/*}
LD_LIBRARY_PATH=$(dirname "$(find "$work/installed" -name 'libnfslib.so')")
export LD_LIBRARY_PATH

mkdir "$work/project"
cp "$here"/{generated_files.cpp,read_only.h,serve.h,tutorial/CMakeLists.txt} "$work/project"
awk '/^```sh$/ { on = 1; next } /^```$/ { on = 0 } on' "$source/docs/tutorial.md" >"$work/commands"
[ "$(wc -l <"$work/commands")" -ge 3 ] || { echo "The tutorial has no commands."; exit 1; }
(cd "$work/project" && bash -eu "$work/commands") >"$work/log" 2>&1 || { cat "$work/log"; exit 1; }
# The other examples need nothing either that is not installed.
read -ra flags < <(pkg-config --cflags nfslib)
for example in "$here"/*.cpp; do c++ -std=c++20 -fsyntax-only "${flags[@]}" "$example"; done
for program in build/generated_files generated_files_2; do
  "$here/check_generated_files.sh" "$work/project/$program"
done
