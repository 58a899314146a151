# Reads what llvm-cov exports for lcov and prints, for each source below ROOT, what is not reached and the sums. See unreached of
# scripts/coverage.sh.

function indent(text) { match(text, /^ */); return RLENGTH }

# Fills excused[LINE] with the numbers of the comments that give a reason for leaving out the line.
function read_excuses(path,    line, text, number, depth, from) {
    delete excused
    number = 0
    from = 0  # a comment above whose statement this is
    while ((getline text < path) > 0) {
        number++
        if (text ~ /^ *\/\/ not reached: ./) {
            from = number
            depth = indent(text)
            begun = 0
            continue
        }
        if (from && !begun && text ~ /^ *\/\//)
            continue
        if (from && (!begun || indent(text) > depth || (indent(text) == depth && text ~ /^ *[{}]/))) {
            begun = 1
            excused[number] = from
            continue
        }
        from = 0
        if (text ~ /\/\/ not reached: ./)
            excused[number] = number
    }
    close(path)
}

function percent(part, all) { return all ? 100 * part / all : 100 }

function row(name, lines, reached, branches, taken) {
    printf "%6d %6d %6.1f %% %6d %6d %6.1f %%  %s\n", lines, reached, percent(reached, lines), branches, taken,
        percent(taken, branches), name
}

/^SF:/ {
    file = substr($0, 4)
    sub(/^.*\/\.\//, root, file)
    name = substr(file, length(root) + 1)
    read_excuses(file)
    delete missed
    delete used
    lines = reached = branches = taken = 0
}
/^DA:/ {
    split(substr($0, 4), field, ",")
    if (field[1] in excused) {
        used[excused[field[1]]] += field[2] == 0
    } else {
        lines++
        if (field[2] > 0)
            reached++
        else
            missed[field[1]] = "not reached"
    }
}
/^BRDA:/ {
    split(substr($0, 6), field, ",")
    hit = field[4] != "-" && field[4] > 0
    if (field[1] in excused) {
        used[excused[field[1]]] += !hit
    } else {
        branches++
        if (hit)
            taken++
        else if (!(field[1] in missed))
            missed[field[1]] = field[3] % 2 ? "never false" : "never true"
        else if (missed[field[1]] != "not reached")
            missed[field[1]] = missed[field[1]] ", " (field[3] % 2 ? "never false" : "never true")
    }
}
/^end_of_record/ {
    for (line in missed)
        print name ":" line ": " missed[line] | "sort -t: -k1,1 -k2,2n"
    for (line in excused)
        if (!(excused[line] in used) || used[excused[line]] == 0) {
            stale[name ":" excused[line]] = 1
        }
    rows[++count] = name
    sums[count] = lines " " reached " " branches " " taken
    all[1] += lines
    all[2] += reached
    all[3] += branches
    all[4] += taken
}
END {
    close("sort -t: -k1,1 -k2,2n")
    for (place in stale)
        print place ": the comment says \"not reached\", and all of it is reached"
    print " lines reached        branches reached          file"
    for (i = 1; i <= count; i++) {
        split(sums[i], field, " ")
        row(rows[i], field[1], field[2], field[3], field[4])
    }
    row("all", all[1], all[2], all[3], all[4])
    exit all[1] ? 0 : 1
}
