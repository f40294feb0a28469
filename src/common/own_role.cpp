#include "own_role.h"

char master_ip[32];
char slave_ip[32];
std::atomic<int> role;
