#include "verbs.h"

int main(int argc, char** argv) {
    return run_ctl(argc, argv);
}
