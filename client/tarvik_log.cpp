#include "client/tarvik_log.h"

#include <cerrno>

#include "client/ClientLog.h"
#include "client/KeepErrno.h"
#include "logstore/LogRecord.h"

namespace {

tarvik::CClientLog& HandleOf(tarvik_log* log) {
    return *static_cast<tarvik::CClientLog*>(log);
}

bool IsType(int nType) {
    return nType >= TARVIK_LOG_INFO && nType <= TARVIK_LOG_REALTIME;
}

int SetCallback(tarvik::CCallback& target, tarvik_log_callback callback, void* pUser) {
    target.Set(callback, pUser);
    return 0;
}

}  // namespace

int tarvik_log_open(tarvik_log** log, int client_index, uint16_t service_port,
                    uint16_t control_port) {
    const tarvik::CKeepErrno keep;
    if (log == nullptr) {
        return -EINVAL;
    }
    *log = nullptr;
    if (client_index < 0 || client_index > kMaxClientIndex || service_port == 0) {
        return -EINVAL;
    }
    tarvik::CClientLog* pLog = nullptr;
    const int nError = tarvik::CClientLog::Open(pLog, client_index, service_port, control_port);
    *log = pLog;
    return nError;
}

void tarvik_log_close(tarvik_log* log) {
    const tarvik::CKeepErrno keep;
    if (log != nullptr) {
        tarvik::CClientLog::Close(&HandleOf(log));
    }
}

// The body of a printf-like call that logs as nType.
#define PRINT_AS(nType)                                                    \
    std::va_list arguments;                                                \
    va_start(arguments, format);                                           \
    const int nResult = tarvik_log_vprintf(log, nType, format, arguments); \
    va_end(arguments);                                                     \
    return nResult

int tarvik_log_info(tarvik_log* log, const char* format, ...) {
    PRINT_AS(TARVIK_LOG_INFO);
}

int tarvik_log_warning(tarvik_log* log, const char* format, ...) {
    PRINT_AS(TARVIK_LOG_WARNING);
}

int tarvik_log_error(tarvik_log* log, const char* format, ...) {
    PRINT_AS(TARVIK_LOG_ERROR);
}

int tarvik_log_debug(tarvik_log* log, const char* format, ...) {
    PRINT_AS(TARVIK_LOG_DEBUG);
}

int tarvik_log_realtime_print(tarvik_log* log, const char* format, ...) {
    PRINT_AS(TARVIK_LOG_REALTIME);
}

#undef PRINT_AS

int tarvik_log_vprintf(tarvik_log* log, int type, const char* format, va_list arguments) {
    const tarvik::CKeepErrno keep;
    if (log == nullptr || !IsType(type)) {
        return -EINVAL;
    }
    return HandleOf(log).Print(type, format, arguments);
}

int tarvik_log_write(tarvik_log* log, int type, const char* text, size_t length) {
    const tarvik::CKeepErrno keep;
    if (log == nullptr || !IsType(type) || text == nullptr) {
        return -EINVAL;
    }
    return HandleOf(log).Write(type, text, length);
}

int tarvik_log_stats(tarvik_log* log, uint64_t* sent, uint64_t* lost) {
    const tarvik::CKeepErrno keep;
    if (log == nullptr) {
        return -EINVAL;
    }
    std::uint64_t nSent = 0;
    std::uint64_t nLost = 0;
    HandleOf(log).Records().GetCounts(nSent, nLost);
    if (sent != nullptr) {
        *sent = nSent;
    }
    if (lost != nullptr) {
        *lost = nLost;
    }
    return 0;
}

int tarvik_log_on_realtime(tarvik_log* log, tarvik_log_callback callback, void* user) {
    return log == nullptr ? -EINVAL
                          : SetCallback(HandleOf(log).Control().OnRealTime(), callback, user);
}

int tarvik_log_on_language(tarvik_log* log, tarvik_log_callback callback, void* user) {
    return log == nullptr ? -EINVAL
                          : SetCallback(HandleOf(log).Control().OnLanguage(), callback, user);
}

int tarvik_log_start_thread(tarvik_log* log) {
    const tarvik::CKeepErrno keep;
    return log == nullptr ? -EINVAL : HandleOf(log).Control().StartThread();
}

int tarvik_log_fd(tarvik_log* log) {
    if (log == nullptr) {
        return -EINVAL;
    }
    const int nDescriptor = HandleOf(log).Control().Fd();
    return nDescriptor < 0 ? -ENOTCONN : nDescriptor;
}

int tarvik_log_poll(tarvik_log* log) {
    if (log == nullptr) {
        return -EINVAL;
    }
    tarvik::CControlInput& control = HandleOf(log).Control();
    return control.Fd() < 0 ? -ENOTCONN : control.TakeUp();
}

int tarvik_log_look(tarvik_log* log) {
    return log == nullptr ? 0 : HandleOf(log).Control().Look();
}
