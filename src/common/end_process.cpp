#include "end_process.h"

#include <unistd.h>

#include "log.h"

void end_process(int status) {
    close_logs();
    _exit(status);
}
