#!/bin/bash
# put all C++ sources into the project's format; with --check only say what is not
. scripts/lib/common.sh
install_packages format
mode=(-i)
[ "${1-}" = --check ] && mode=(--dry-run --Werror)
sources '*.cpp' '*.h' '*.def' | xargs -0 -r clang-format --style=file "${mode[@]}"
