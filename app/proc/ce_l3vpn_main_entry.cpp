#include "app/proc/ce_l3vpn_main.h"

int main() { return ce_l3vpn_main(); }
