/* A shared library that uses the C library's random-number functions by their names. */
#include <stdlib.h>

void probe_srand(unsigned int seed) { srand(seed); }
int probe_rand(void) { return rand(); }
void probe_srandom(unsigned int seed) { srandom(seed); }
long probe_random(void) { return random(); }
