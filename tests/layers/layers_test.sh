#!/bin/sh
# Who uses whom: the includes, symbols and link lines of the tree are those of its table, and what is planted against it
# is found.
# usage: layers_test.sh SOURCE BUILD
set -eu
source=$1
build=$2
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
failed=0

python3 "$source/scripts/layers.py" "$source" "$build" || failed=1

# A tree like ours: the table, the sources, and the objects of one part.
fresh_tree()
{
    rm -rf "$work/tree" "$work/build"
    mkdir -p "$work/tree" "$work/build/common/base/CMakeFiles/kesta_base.dir"
    (cd "$source" && cp -r CONTRIBUTING.md common include platform operator tools lab bench "$work/tree")
    cp "$build"/common/base/CMakeFiles/kesta_base.dir/*.o "$work/build/common/base/CMakeFiles/kesta_base.dir"
}

# found WHAT PATTERN: the planted fault is told, and nothing else is wrong.
found()
{
    if python3 "$source/scripts/layers.py" "$work/tree" "$work/build" > "$work/told" 2>&1; then
        echo "not found: $1" >&2
        failed=1
    elif ! grep -q -e "$2" "$work/told" || [ "$(wc -l < "$work/told")" != 2 ]; then
        echo "$1 is told otherwise:" >&2
        cat "$work/told" >&2
        failed=1
    fi
}

fresh_tree
python3 "$source/scripts/layers.py" "$work/tree" "$work/build" > "$work/told" 2>&1 || {
    echo "the copy of the tree has faults before anything is planted:" >&2
    cat "$work/told" >&2
    failed=1
}

echo '#include "definition_reader.h"' >> "$work/tree/common/base/text_line.h"
found "an include of a folder above" 'common/base/text_line.h may not use common/definition/'

fresh_tree
echo '#include "trace.h"' >> "$work/tree/operator/utc.h"
found "an include by the back door" 'operator/utc.h may not use common/base/'

fresh_tree
echo '#include "text_line.h"' >> "$work/tree/common/base/text_field.h"
echo '#include "text_field.h"' >> "$work/tree/common/base/text_line.h"
found "two headers that include each other" 'a cycle of files: common/base/text_field, common/base/text_line'

# Symbols: a declaration of one's own needs no include.
objects=$work/build/common/base/CMakeFiles/kesta_base.dir
fresh_tree
echo 'namespace kesta { int above(); } int call() { return kesta::above(); }' > "$work/tree/common/base/below.cpp"
echo 'namespace kesta { int above() { return 0; } }' > "$work/tree/common/locks/above.cpp"
mkdir -p "$work/build/common/locks/CMakeFiles/kesta_locks.dir"
c++ -c "$work/tree/common/base/below.cpp" -o "$objects/below.cpp.o"
c++ -c "$work/tree/common/locks/above.cpp" -o "$work/build/common/locks/CMakeFiles/kesta_locks.dir/above.cpp.o"
found "a call of a folder above" 'common/base/below.cpp may not use common/locks/: it calls _ZN5kesta5aboveEv'

# The engine calls what is exported, and nothing else of the library.
fresh_tree
echo 'namespace kesta { int below() { return 0; } }' > "$work/tree/common/base/below.cpp"
echo 'extern "C" int kestal_isdigit(const char *); namespace kesta { int below(); }
    int call() { return kesta::below() + kestal_isdigit("1"); }' > "$work/tree/operator/engine.cpp"
mkdir -p "$work/build/operator/CMakeFiles/kesta_operator.dir"
c++ -c "$work/tree/common/base/below.cpp" -o "$objects/below.cpp.o"
c++ -c "$work/tree/operator/engine.cpp" -o "$work/build/operator/CMakeFiles/kesta_operator.dir/engine.cpp.o"
found "a call of the library's private names" 'operator/engine.cpp may not use common/base/: it calls _ZN5kesta5belowEv'

fresh_tree
sed -i 's/kesta_base)/kesta_base kesta_flows)/' "$work/tree/common/process/CMakeLists.txt"
found "a link line beyond the table" 'common/process/CMakeLists.txt links'

fresh_tree
echo 'const char *wwn = "/etc/kesta_sys/wwn";' >> "$work/tree/operator/utc.cpp"
found "a path that is stated anew" 'operator/utc.cpp line [0-9]* states a path of include/kesta/paths.h: /etc/kesta_sys/'

fresh_tree
sed -i '1i #include <nlohmann/json.hpp>' "$work/tree/operator/utc.cpp"
found "a second file that includes JSON" 'operator/utc.cpp line 1 includes <nlohmann/json.hpp>'

fresh_tree
sed -i '1i #include <filesystem>' "$work/tree/tools/kestactl/command.h"
found "a header that takes long, in one that all include" 'tools/kestactl/command.h line 1 includes <filesystem>'

fresh_tree
sed -i 's,^| `platform/contract/` | nothing |,| `platform/contract/` | `platform/embedded/` |,' "$work/tree/CONTRIBUTING.md"
found "a cycle in the table" 'a cycle of folders in the table: platform/contract/, platform/embedded/, platform/support/'

exit $failed
