#!/usr/bin/env bash
# Builds what the distribution does not have for Windows x64, each from the distribution's own source: Qt's Core and Sql
# with the SQLite driver, the reference CBLAS, GoogleTest. The headers of the header-only libraries are linked beside.
#
#   dependencies.sh CACHE    prints the prefix below CACHE, after building it when it is not there
#
# The prefix is named after what goes into it: this script, the tool chain, the versions of Qt, SQLite, GoogleTest and the
# compiler. It appears whole or not at all.
set -euo pipefail
cache=$1
target=x86_64-w64-mingw32
jobs=$(nproc 2>/dev/null || echo 2)
export MAKEFLAGS=-j$jobs
here=$(cd "$(dirname "${BASH_SOURCE[0]}")" && pwd)

say() { printf '== %s\n' "$*" >&2; }

versions=$(dpkg-query -W -f='${source:Package} ${source:Version}\n' qtbase5-dev-tools libsqlite3-0 googletest \
    g++-mingw-w64-x86-64-posix gfortran-mingw-w64-x86-64-posix mingw-w64-x86-64-dev libeigen3-dev libcli11-dev rapidjson-dev)
key=$({ cat "$here/dependencies.sh" "$here/toolchain.cmake"; printf '%s\n' "$versions"; } | sha256sum | cut -c1-16)
prefix=$cache/windows/$key
if [ -e "$prefix/.complete" ]; then
    printf '%s\n' "$prefix"
    exit 0
fi

mkdir -p "$cache/windows"
exec 9>"$cache/windows/lock"
flock 9 # of two that build the same one, the second finds it built
if [ -e "$prefix/.complete" ]; then
    printf '%s\n' "$prefix"
    exit 0
fi

work=$(mktemp -d "$cache/windows/building.XXXXXX")
trap 'rm -rf "$work"' EXIT
# A command of the build: its output is shown only when it fails.
quietly() {
    "$@" >"$work/log" 2>&1 || { tail -n 60 "$work/log" >&2; say "failed: $*"; exit 1; }
}

# The machine's own sources of packages, asked for source packages; the system's configuration stays as it is.
say "Fetching the sources of Qt, SQLite and the reference BLAS"
apt=$work/apt
mkdir -p "$apt"/{lists/partial,archives/partial,sources.list.d} "$work/source"
for file in /etc/apt/sources.list /etc/apt/sources.list.d/*.sources /etc/apt/sources.list.d/*.list; do
    [ -e "$file" ] || continue
    grep -qE 'debian|ubuntu' "$file" || continue
    name=$apt/sources.list.d/${file##*/}
    sed -E 's/^Types:.*/Types: deb-src/; s/^deb[[:space:]]/deb-src /' "$file" >"$name"
done
: >"$apt/sources.list"
cat >"$apt/apt.conf" <<CONF
Dir::Etc::sourcelist "$apt/sources.list";
Dir::Etc::sourceparts "$apt/sources.list.d";
Dir::State::lists "$apt/lists";
Dir::Cache "$apt";
Dir::Cache::archives "$apt/archives";
APT::Sandbox::User "root";
CONF
quietly env APT_CONFIG="$apt/apt.conf" apt-get update
sources=$(awk '{ print $1 "=" $2 }' <<<"$versions" | grep -E '^(qtbase-opensource-src|sqlite3)=')
cd "$work/source"
# shellcheck disable=SC2086
quietly env APT_CONFIG="$apt/apt.conf" apt-get source -q --only-source $sources lapack
qt=$(echo "$work"/source/qtbase-opensource-src-*/)
sqlite=$(echo "$work"/source/sqlite3-*/)
lapack=$(echo "$work"/source/lapack-*/)
stage=$work/prefix
mkdir -p "$stage"/{bin,lib,include,licenses}

say "Building SQLite's amalgamation and CBLAS"
mkdir -p "$work/sqlite"
cd "$work/sqlite"
quietly "$sqlite/configure" --disable-tcl
quietly make sqlite3.c
mkdir -p "$qt/src/3rdparty/sqlite"
cp sqlite3.c sqlite3.h "$qt/src/3rdparty/sqlite/"

mkdir -p "$work/cblas"
cd "$work/cblas"
# The products of matrices are all that is used; the library has everything that its header names.
cp "$lapack/CBLAS/include/cblas_mangling_with_flags.h.in" "$lapack/CBLAS/include/cblas_mangling.h"
find "$lapack/BLAS/SRC" "$lapack/CBLAS/src" \( -name '*.f' -o -name '*.f90' -o -name '*.F90' -o -name '*.c' \) -print0 >files
quietly xargs -0 -n 8 -P "$jobs" -a files "$target-gfortran" -c -O2 -w -I"$lapack/CBLAS/include" -DADD_
quietly "$target-gfortran" -shared -o "$stage/bin/cblas.dll" ./*.o -Wl,--out-implib,"$stage/lib/libcblas.dll.a" \
    -Wl,--export-all-symbols -s
cp "$lapack"/CBLAS/include/cblas*.h "$stage/include/"
cp "$lapack/LICENSE" "$stage/licenses/lapack.txt"

say "Building Qt $(basename "$qt" | sed 's/.*-//') for Windows: some minutes, once"
mkdir -p "$work/qt"
cd "$work/qt"
# Flags for optimisation have no effect on the command line.
sed -i -E 's/^(QMAKE_CFLAGS_OPTIMIZE *=).*/\1 -O2/' "$qt/mkspecs/common/gcc-base.conf"
quietly "$qt/configure" -prefix "$stage" -opensource -confirm-license -release -shared \
    -xplatform win32-g++ -device-option "CROSS_COMPILE=$target-" -external-hostbindir /usr/lib/qt5/bin \
    -no-gui -no-widgets -no-dbus -no-feature-network -no-feature-xml -no-feature-concurrent -no-feature-testlib \
    -no-opengl -no-openssl -no-icu -no-glib -no-pch -qt-zlib -qt-pcre -qt-doubleconversion -qt-sqlite -sql-sqlite \
    -no-sql-odbc -no-sql-mysql -no-sql-psql -nomake examples -nomake tests -nomake tools
quietly make sub-src-qmake_all
for part in 3rdparty/pcre2 winmain corelib sql plugins/sqldrivers/sqlite; do
    quietly make -C "src/$part"
    quietly make -C "src/$part" install
done
mkdir -p "$stage/mkspecs"
cp -r "$qt/mkspecs/win32-g++" "$stage/mkspecs/"
for tool in qmake moc rcc; do ln -sf "/usr/lib/qt5/bin/$tool" "$stage/bin/$tool"; done
cp "$qt/debian/copyright" "$stage/licenses/Qt.txt" # with what it brings along: PCRE2, zlib, double-conversion
cp "$sqlite/debian/copyright" "$stage/licenses/sqlite.txt"

say "Building GoogleTest"
mkdir -p "$work/googletest"
cd "$work/googletest"
quietly cmake /usr/src/googletest -G Ninja -DCMAKE_TOOLCHAIN_FILE="$here/toolchain.cmake" -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CXX_FLAGS=-std=c++17 -DQS_WINDOWS_PREFIX="$stage" -DCMAKE_INSTALL_PREFIX="$stage" -DINSTALL_GTEST=ON
quietly ninja install

# Headers alone; the target's compiler must not see the machine's other headers.
for headers in rapidjson CLI eigen3; do ln -s "/usr/include/$headers" "$stage/include/$headers"; done
mkdir -p "$stage/share"
ln -s /usr/share/eigen3 "$stage/share/eigen3"

# What else a program needs beside it.
gcc_folder=$(dirname "$("$target-gcc" -print-libgcc-file-name)")
for library in libgcc_s_seh-1.dll libstdc++-6.dll libgfortran-5.dll libquadmath-0.dll; do
    cp "$gcc_folder/$library" "$stage/bin/"
done
cp "/usr/$target/lib/libwinpthread-1.dll" "$stage/bin/"
"$target-strip" "$stage"/bin/*.dll "$stage"/plugins/*/*.dll
for package in gcc-mingw-w64-base mingw-w64-common libeigen3-dev libcli11-dev rapidjson-dev; do
    cp "/usr/share/doc/$package/copyright" "$stage/licenses/$package.txt"
done
# Texts that those refer to.
mkdir "$stage/licenses/common-licenses"
cp -L /usr/share/common-licenses/* "$stage/licenses/common-licenses/"

# Packages of CMake name the place they are in relative to themselves; what does not is put right here.
grep -rlI "$stage" "$stage" --include='*.pri' --include='*.cmake' --include='*.prl' --include='*.pc' --include='qt.conf' |
    xargs -r sed -i "s|$stage|$prefix|g"
printf '%s\n' "$versions" "lapack $(basename "$lapack")" >"$stage/versions.txt"
touch "$stage/.complete"
rm -rf "$prefix"
mv "$stage" "$prefix"
printf '%s\n' "$prefix"
