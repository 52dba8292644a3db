#include <tarvik_log.h>

int LogFromC(tarvik_log* log);

static int Print(tarvik_log* log, int type, const char* format, ...) {
    int result;
    va_list arguments;
    va_start(arguments, format);
    result = tarvik_log_vprintf(log, type, format, arguments);
    va_end(arguments);
    return result;
}

int LogFromC(tarvik_log* log) {
    int evaluated = 0;
    int result = tarvik_log_realtime(log, "no argument") + tarvik_log_info(log, "%s", "info");
    if (result == 0)
        tarvik_log_realtime(log, "%d", ++evaluated);
    else
        tarvik_log_realtime(log, "%d %d", ++evaluated, result);
    tarvik_log_warning(log, "warning");
    tarvik_log_error(log, "error %d", 2);
    Print(log, TARVIK_LOG_DEBUG, "%s", "debug");
    return evaluated;
}
