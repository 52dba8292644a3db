/* Uses the library the way a C program does. */
#ifndef TESTS_CLIENT_FROMC_H
#define TESTS_CLIENT_FROMC_H

#include <tarvik_log.h>

#ifdef __cplusplus
extern "C" {
#endif

/* One record of each type, real-time records as wanted. How often the arguments of real-time calls
 * were evaluated. */
int LogFromC(tarvik_log* log);

#ifdef __cplusplus
}
#endif

#endif
