# shellcheck shell=bash
# ./dev package: what is handed out.

package_version() { sed -n 's/^project(fc VERSION \([0-9.]*\).*/\1/p' "$ROOT/CMakeLists.txt"; }

# The DLL, its symbols beside it, the definitions for editors, and the licences of all that it links
# or carries.
make_package() {
    local name dir zip
    name=fc-$(package_version)
    dir=$BUILD/package/$name zip=$ROOT/dist/$name.zip
    rm -rf "$BUILD/package"
    mkdir -p "$dir/licences" "$dir/lua" "$ROOT/dist"
    cp "$BUILD/bin/fc.dll" "$BUILD/bin/fc.pdb" "$dir/"
    cp "$ROOT/docs/lua/fc.d.lua" "$dir/lua/"
    cp "$ROOT/LICENSE" "$dir/licences/fc.txt"
    cp "$(libraries_dir)"/licences/*.txt "$(headers_dir)"/licences/*.txt "$dir/licences/"
    rm -f "$zip"
    (cd "$BUILD/package" && zip -q -X -r "$zip" "$name")
    unzip -tq "$zip" >/dev/null || die "the package is broken; try again"
    say "packed $zip"
    unzip -l "$zip"
}
