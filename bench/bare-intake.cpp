// The bare loop of an intake: select on a socket and a pipe with a time-out of 100 ms, recvfrom,
// and a seek and a write each for the record and the header. A program of its own, since the C
// library of a process that ever had two threads makes every call dearer.
//
// Usage: tarvik-bare-intake SOCKET PIPE FILE [sleeper], the first three being open descriptors: a
// UDP socket, a pipe's read end, a day's file with its header. With "sleeper" the process gets a
// second thread, which does nothing. Runs until it is killed.
#include <pthread.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <unistd.h>

#include <netinet/in.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>

#include "logstore/LogRecord.h"

namespace {

// Stores one record of nSocket; false when the loop cannot go on.
bool StoreOne(int nSocket, int nFile, LogFileHeader& header) {
    LogRecord record;
    sockaddr_in sender;
    socklen_t nSenderLen = sizeof(sender);
    if (recvfrom(nSocket, &record, sizeof(record), 0, reinterpret_cast<sockaddr*>(&sender),
                 &nSenderLen) < 0) {
        return false;
    }
    if (++header.dwCount % kLogFileUnits == 0) {
        ++header.dwCount;
    }
    const off_t nSlot = header.dwCount % kLogFileUnits;
    lseek(nFile, nSlot * static_cast<off_t>(kRecordBytes), SEEK_SET);
    const bool bStored = write(nFile, &record, sizeof(record)) == sizeof(record);
    lseek(nFile, 0, SEEK_SET);
    return bStored && write(nFile, &header, sizeof(header)) == sizeof(header);
}

int RunBareLoop(int nSocket, int nPipe, int nFile) {
    LogFileHeader header;
    if (pread(nFile, &header, sizeof(header), 0) != sizeof(header)) {
        return 1;
    }
    for (;;) {
        fd_set setReady;
        FD_ZERO(&setReady);
        FD_SET(nSocket, &setReady);
        FD_SET(nPipe, &setReady);
        timeval tvWait{0, 100000};
        const int nReady =
            select(std::max(nSocket, nPipe) + 1, &setReady, nullptr, nullptr, &tvWait);
        if (nReady > 0 && FD_ISSET(nSocket, &setReady) && !StoreOne(nSocket, nFile, header)) {
            return 1;
        }
    }
}

bool StartSleeper() {
    const auto sleep = [](void*) -> void* {
        for (;;) {
            pause();
        }
    };
    pthread_t thread;
    return pthread_create(&thread, nullptr, sleep, nullptr) == 0;
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 4) {
        std::fputs("tarvik-bare-intake: tarvik-bench starts it, with descriptors\n", stderr);
        return 2;
    }
    if (argc > 4 && !StartSleeper()) {
        return 1;
    }
    return RunBareLoop(std::atoi(argv[1]), std::atoi(argv[2]), std::atoi(argv[3]));
}
