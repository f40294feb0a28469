#!/usr/bin/mawk -Wexec
# Stands in for quordhcpd, stagd, evpost_ex and, where a test wants it, killall. The kernel names
# the process after the script, so killall finds it by that name. mawk touches no signal and holds no descriptor of its own, so
# this process shows exactly what it inherited while record.py looks at it.
BEGIN {
    while ((getline line < "/proc/self/status") > 0) {
        split(line, field, /[ \t]+/)
        value[field[1]] = field[2]
    }
    close("/proc/self/status")
    exit system("exec /usr/bin/python3 -IS /lab/stubs/record.py " value["Pid:"] " " \
                value["SigBlk:"] " " value["SigIgn:"] " " value["SigCgt:"])
}
