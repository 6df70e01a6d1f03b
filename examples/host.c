#include "server/rdxhttp.h"

#include <stdio.h>

int main(int argc, char** argv) {
    int result = rdxhttp_main(argc, argv); /* serves until SIGTERM */
    printf("\nthe server ended with %d\n", result);
    return result == 0 ? 0 : 1;
}
