/* Logs as client 1: example [PortFromClient [ListenPort]] */
#include <inttypes.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <tarvik_log.h>

int main(int count, char** arguments) {
    uint16_t service_port = count > 1 ? (uint16_t)strtoul(arguments[1], NULL, 10) : 1982;
    uint16_t control_port = count > 2 ? (uint16_t)strtoul(arguments[2], NULL, 10) : 0;
    uint64_t sent, lost;
    tarvik_log* log;
    int error = tarvik_log_open(&log, 1, service_port, control_port);
    if (error != 0) {
        fprintf(stderr, "no log: %s\n", strerror(-error));
    }
    tarvik_log_info(log, "started with %d arguments", count - 1);
    tarvik_log_warning(log, "temperature %d C", 71);
    tarvik_log_realtime(log, "only while an engineer watches: %s", arguments[0]);
    if (tarvik_log_stats(log, &sent, &lost) == 0) {
        printf("%" PRIu64 " sent, %" PRIu64 " lost\n", sent, lost);
    }
    tarvik_log_close(log);
    return 0;
}
