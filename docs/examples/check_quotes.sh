#!/bin/sh
# check_quotes.sh <file.md>...: checks that every code block of the given
# Markdown files is quoted exactly from a tested source file.
#
# Run from the project root. Each fenced code block must follow a line
#
#   <!-- quote: PATH NAME -->
#
# and hold exactly the lines of PATH between the line that contains
# "[START NAME]" and the line that contains "[END NAME]", with their common
# leading blanks removed (so code quoted from inside a function reads flush
# left). Prints each mismatch as "FILE:LINE: ..." and exits 1 if there is any.
set -eu
status=0
for md in "$@"; do
    awk -v md="$md" '
function problem(line, text) {
    printf "%s:%d: %s\n", md, line, text
    failures++
}

# Loads the region NAME of PATH into region[1..region_n], dedented. Returns
# an empty string, or what is wrong.
function load_region(path, name,    start, end, line, state, got, indent, i, lead) {
    start = "[START " name "]"
    end = "[END " name "]"
    region_n = 0
    state = 0
    while ((got = (getline line < path)) > 0) {
        if (index(line, start)) {
            if (state != 0) { close(path); return "more than one [START " name "] in " path }
            state = 1
        } else if (index(line, end)) {
            if (state != 1) { close(path); return "[END " name "] without its start in " path }
            state = 2
        } else if (state == 1) {
            region[++region_n] = line
        }
    }
    close(path)
    if (got < 0) return "cannot read " path
    if (state != 2) return "no region [" name "] in " path
    indent = -1
    for (i = 1; i <= region_n; i++) {
        if (region[i] == "") continue
        match(region[i], /^ */)
        if (indent < 0 || RLENGTH < indent) indent = RLENGTH
    }
    for (i = 1; i <= region_n; i++) {
        if (region[i] != "") region[i] = substr(region[i], indent + 1)
    }
    return ""
}

function compare_block(    why, i, n) {
    why = load_region(quote_path, quote_name)
    if (why != "") { problem(block_line, why); return }
    n = block_n > region_n ? block_n : region_n
    for (i = 1; i <= n; i++) {
        if (i > block_n || i > region_n || block[i] != region[i]) {
            problem(block_line + i, "the quote of " quote_path " [" quote_name "] differs from its source at line " i \
                    " of the block")
            return
        }
    }
}

in_fence {
    if ($0 ~ /^```[ \t]*$/) {
        in_fence = 0
        if (quoting) compare_block()
    } else if (quoting) {
        block[++block_n] = $0
    }
    previous = $0
    next
}

/^```/ {
    in_fence = 1
    block_n = 0
    block_line = NR
    quoting = previous ~ /^<!-- quote: [^ ]+ [^ ]+ -->$/
    if (quoting) {
        split(previous, words, " ")
        quote_path = words[3]
        quote_name = words[4]
    } else {
        problem(NR, "a code block that quotes no tested file (put <!-- quote: PATH NAME --> before it)")
    }
}

{ previous = $0 }

END {
    if (in_fence) problem(block_line, "a code block that is never closed")
    exit failures > 0
}
' "$md" || status=1
done
exit "$status"
