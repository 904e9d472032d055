# What ctest says, without the tests that have passed: of those, on a terminal, the number so far
# (terminal=yes).

function counter(text)
{
    if (terminal) printf "\r\033[K%s", text
}

/^ +Start +[0-9]+: / { next }

/^ *[0-9]+\/[0-9]+ Test +#[0-9]+: .* Passed +[0-9.]+ sec$/ {
    counter($1)
    fflush()
    next
}

# Where a preset shows all that its tests print: what only says that they run.
/^(UpdateCTestConfiguration|Constructing a list|Done constructing|Updating test list)/ { next }
/^(Added [0-9]+ tests to meet|Checking test dependency)/ { next }
/^test [0-9]+$/ || /^[0-9]+: (Test (command|timeout)|Working Directory|Environment variables)/ { next }
/^[0-9]+: ?($|Running main|Note: Google Test|\[( RUN|      OK|  PASSED|---|===))/ { next }
/^The following tests passed:$/, /^$/ { next }

/^(Test project|Internal ctest changing)/ || (NR == 2 && /^$/) { next }

{
    counter("")
    print
    fflush()
}
