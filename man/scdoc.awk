# Puts scdoc's paragraph macros where they have an effect: never before or after a heading, and
# behind the end of an indented block instead of before it.
$0 == ".P" { pending = !heading; next }
/^\.S[HS] / { pending = 0; heading = 1; print; next }
$0 == ".RE" { print; next }
{
    if (pending) print ".P"
    pending = heading = 0
    print
}
