#include "fuzz/FakeSystem.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <pthread.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <span>
#include <utility>

#include "fuzz/Check.h"

namespace {

constexpr pid_t kChild = 1;  // of every command; there is no such child
constexpr int kSocketBuffer = 16384;
constexpr int kMostIdleWaits = 20000;  // more than any input has steps

thread_local CFakeSystem* t_pSystem = nullptr;

bool IsIn(int nDescriptor, const fd_set* pSet) {
    return pSet != nullptr && FD_ISSET(nDescriptor, pSet);
}

// Takes a descriptor that is not ready out of a set. 1 when it stays there.
int Keep(int nDescriptor, bool bReady, fd_set* pSet) {
    if (!IsIn(nDescriptor, pSet)) {
        return 0;
    }
    if (!bReady) {
        FD_CLR(nDescriptor, pSet);
    }
    return bReady ? 1 : 0;
}

}  // namespace

bool CPeerEnd::Send(const std::string& strBytes) const {
    return send(m_Socket.Get(), strBytes.data(), strBytes.size(), MSG_NOSIGNAL | MSG_DONTWAIT) ==
           static_cast<ssize_t>(strBytes.size());
}

void CPeerEnd::Read(std::size_t nMost) {
    char byPiece[16384];
    while (nMost > 0) {
        const ssize_t nBytes =
            recv(m_Socket.Get(), byPiece, std::min(nMost, sizeof(byPiece)), MSG_DONTWAIT);
        if (nBytes <= 0) {
            m_bEnd = nBytes == 0 || errno != EAGAIN;
            return;
        }
        m_strReceived.append(byPiece, static_cast<std::size_t>(nBytes));
        nMost -= static_cast<std::size_t>(nBytes);
    }
}

void CPeerEnd::HalfClose() const {
    shutdown(m_Socket.Get(), SHUT_WR);
}

CFakeSystem::CFakeSystem(std::function<void()> fnStep) : m_fnStep(std::move(fnStep)) {
    t_pSystem = this;
}

CFakeSystem::~CFakeSystem() {
    t_pSystem = nullptr;
}

// Tells what is ready; the script does a step first when nothing is.
int CFakeSystem::Select(int nDescriptors, fd_set* pRead, fd_set* pWrite) {
    if (pRead == nullptr) {
        return 0;  // a rest
    }
    fd_set setRead = *pRead;
    fd_set setWrite{};
    if (pWrite != nullptr) {
        setWrite = *pWrite;
    }
    int nReady = Ready(nDescriptors, setRead, pWrite == nullptr ? nullptr : &setWrite);
    if (nReady == 0) {
        m_fnStep();
        setRead = *pRead;
        if (pWrite != nullptr) {
            setWrite = *pWrite;
        }
        nReady = Ready(nDescriptors, setRead, pWrite == nullptr ? nullptr : &setWrite);
    }
    m_nIdleWaits = nReady == 0 ? m_nIdleWaits + 1 : 0;
    Check(m_nIdleWaits < kMostIdleWaits, "a thread that is told to stop ends");
    *pRead = setRead;
    if (pWrite != nullptr) {
        *pWrite = setWrite;
    }
    return nReady;
}

// Reduces the sets to what is ready and returns its number.
int CFakeSystem::Ready(int nDescriptors, fd_set& setRead, fd_set* pWrite) const {
    pollfd watched[16];
    nfds_t nWatched = 0;
    for (int nDescriptor = 0; nDescriptor < nDescriptors; ++nDescriptor) {
        if (IsIn(nDescriptor, &setRead) || IsIn(nDescriptor, pWrite)) {
            Check(nWatched < std::size(watched), "a thread waits for few descriptors");
            watched[nWatched++] = {nDescriptor, POLLIN | POLLOUT, 0};
        }
    }
    poll(watched, nWatched, 0);
    int nReady = 0;
    for (const pollfd& one : std::span(watched, nWatched)) {
        const bool bListener = one.fd == m_nListener;
        const bool bReadable =
            bListener ? m_nKnocks > 0 : (one.revents & (POLLIN | POLLHUP | POLLERR)) != 0;
        const bool bWritable = !bListener && (one.revents & (POLLOUT | POLLERR)) != 0;
        nReady += Keep(one.fd, bReadable, &setRead) + Keep(one.fd, bWritable, pWrite);
    }
    return nReady;
}

// Makes two sockets that are connected: one for the peers, the other is returned.
int CFakeSystem::MakePair(int nType) {
    int nEnds[2];
    Check(socketpair(AF_UNIX, nType | SOCK_CLOEXEC, 0, nEnds) == 0, "there are sockets");
    for (const int nEnd : nEnds) {
        setsockopt(nEnd, SOL_SOCKET, SO_SNDBUF, &kSocketBuffer, sizeof(kSocketBuffer));
    }
    m_Peers.emplace_back(nEnds[1]);
    return nEnds[0];
}

// Puts a connected local socket in the place of the code's own.
bool CFakeSystem::Plug(int nSocket, int nType) {
    const CUniqueFd end(MakePair(nType));
    const int nFlags = fcntl(nSocket, F_GETFL);
    return dup3(end.Get(), nSocket, O_CLOEXEC) == nSocket && fcntl(nSocket, F_SETFL, nFlags) == 0;
}

int CFakeSystem::Connect(int nSocket) {
    if (m_eConnect == EConnect::kRefused) {
        errno = ECONNREFUSED;
        return -1;
    }
    Check(Plug(nSocket, SOCK_STREAM), "a socket can be replaced");
    if (m_eConnect == EConnect::kDone || m_eConnect == EConnect::kToItself) {
        return 0;
    }
    m_bConnectFailed = m_eConnect == EConnect::kFailsLater;
    errno = EINPROGRESS;
    return -1;
}

int CFakeSystem::Bind(int nSocket) {
    if (!m_bBindWorks) {
        errno = EADDRNOTAVAIL;
        return -1;
    }
    int nType = 0;
    socklen_t nLen = sizeof(nType);
    getsockopt(nSocket, SOL_SOCKET, SO_TYPE, &nType, &nLen);
    Check(nType != SOCK_DGRAM || Plug(nSocket, SOCK_DGRAM), "a socket can be replaced");
    return 0;
}

int CFakeSystem::Listen(int nSocket) {
    m_nListener = nSocket;
    return 0;
}

int CFakeSystem::Accept(int nSocket, int nFlags) {
    if (nSocket != m_nListener || m_nKnocks == 0) {
        errno = EAGAIN;
        return -1;
    }
    --m_nKnocks;
    const int nClient = MakePair(SOCK_STREAM);
    Check((nFlags & SOCK_CLOEXEC) != 0, "no command inherits a connection");
    return nClient;
}

int CFakeSystem::SocketError() {
    return std::exchange(m_bConnectFailed, false) ? ECONNREFUSED : 0;
}

ssize_t CFakeSystem::SendTo(const void* pData, std::size_t nLen, const void* pAddress) {
    if (!m_bSendToWorks) {
        errno = EPERM;
        return -1;
    }
    sockaddr_in address;
    std::memcpy(&address, pAddress, sizeof(address));
    m_Sent.push_back({ntohl(address.sin_addr.s_addr), ntohs(address.sin_port),
                      std::string(static_cast<const char*>(pData), nLen)});
    return static_cast<ssize_t>(nLen);
}

int CFakeSystem::Spawn(pid_t* pChild, const char* szCommand) {
    m_Commands.emplace_back(szCommand);
    *pChild = kChild;
    return m_bShellWorks ? 0 : EAGAIN;
}

std::FILE* CFakeSystem::OpenShell(const char* szCommand) {
    m_Commands.emplace_back(szCommand);
    if (!m_bShellWorks) {
        return nullptr;
    }
    return m_strShellOutput.empty()
               ? std::fopen("/dev/null", "re")
               : fmemopen(m_strShellOutput.data(), m_strShellOutput.size(), "r");
}

int CFakeSystem::RunThread(void* (*pfnBody)(void*), void* pArgument) const {
    if (!m_bThreadsRun) {
        return EAGAIN;
    }
    pfnBody(pArgument);
    return 0;
}

// What the linker puts in the place of the system calls. NOLINTBEGIN(bugprone-reserved-identifier)
extern "C" {

int __real_select(int, fd_set*, fd_set*, fd_set*, timeval*);
int __real_connect(int, const sockaddr*, socklen_t);
int __real_bind(int, const sockaddr*, socklen_t);
int __real_listen(int, int);
int __real_accept4(int, sockaddr*, socklen_t*, int);
int __real_getpeername(int, sockaddr*, socklen_t*);
int __real_getsockopt(int, int, int, void*, socklen_t*);
ssize_t __real_sendto(int, const void*, std::size_t, int, const sockaddr*, socklen_t);
int __real_posix_spawn(pid_t*, const char*, const posix_spawn_file_actions_t*,
                       const posix_spawnattr_t*, char* const*, char* const*);
pid_t __real_waitpid(pid_t, int*, int);
std::FILE* __real_popen(const char*, const char*);
int __real_pclose(std::FILE*);
std::time_t __real_time(std::time_t*);
int __real_nanosleep(const timespec*, timespec*);
int __real_pthread_create(pthread_t*, const pthread_attr_t*, void* (*)(void*), void*);
int __real_pthread_join(pthread_t, void**);

int __wrap_select(int nDescriptors, fd_set* pRead, fd_set* pWrite, fd_set* pExcept,
                  timeval* pTime) {
    return t_pSystem != nullptr ? t_pSystem->Select(nDescriptors, pRead, pWrite)
                                : __real_select(nDescriptors, pRead, pWrite, pExcept, pTime);
}

int __wrap_connect(int nSocket, const sockaddr* pAddress, socklen_t nLen) {
    return t_pSystem != nullptr ? t_pSystem->Connect(nSocket)
                                : __real_connect(nSocket, pAddress, nLen);
}

int __wrap_bind(int nSocket, const sockaddr* pAddress, socklen_t nLen) {
    return t_pSystem != nullptr ? t_pSystem->Bind(nSocket) : __real_bind(nSocket, pAddress, nLen);
}

int __wrap_listen(int nSocket, int nBacklog) {
    return t_pSystem != nullptr ? t_pSystem->Listen(nSocket) : __real_listen(nSocket, nBacklog);
}

int __wrap_accept4(int nSocket, sockaddr* pAddress, socklen_t* pLen, int nFlags) {
    return t_pSystem != nullptr ? t_pSystem->Accept(nSocket, nFlags)
                                : __real_accept4(nSocket, pAddress, pLen, nFlags);
}

// The peer has the port 9 of nowhere, the code's own end port 0.
int __wrap_getpeername(int nSocket, sockaddr* pAddress, socklen_t* pLen) {
    if (t_pSystem == nullptr) {
        return __real_getpeername(nSocket, pAddress, pLen);
    }
    sockaddr_in peer{};
    peer.sin_port = htons(t_pSystem->IsToItself() ? 0 : 9);
    std::memcpy(pAddress, &peer, sizeof(peer));
    return 0;
}

int __wrap_getsockopt(int nSocket, int nLevel, int nName, void* pValue, socklen_t* pLen) {
    if (t_pSystem == nullptr || nLevel != SOL_SOCKET || nName != SO_ERROR) {
        return __real_getsockopt(nSocket, nLevel, nName, pValue, pLen);
    }
    const int nError = t_pSystem->SocketError();
    std::memcpy(pValue, &nError, sizeof(nError));
    return 0;
}

ssize_t __wrap_sendto(int nSocket, const void* pData, std::size_t nLen, int nFlags,
                      const sockaddr* pAddress, socklen_t nAddress) {
    return t_pSystem != nullptr ? t_pSystem->SendTo(pData, nLen, pAddress)
                                : __real_sendto(nSocket, pData, nLen, nFlags, pAddress, nAddress);
}

int __wrap_posix_spawn(pid_t* pChild, const char* szProgram,
                       const posix_spawn_file_actions_t* pActions,
                       const posix_spawnattr_t* pAttributes, char* const* pArguments,
                       char* const* pEnvironment) {
    return t_pSystem != nullptr ? t_pSystem->Spawn(pChild, pArguments[2])
                                : __real_posix_spawn(pChild, szProgram, pActions, pAttributes,
                                                     pArguments, pEnvironment);
}

pid_t __wrap_waitpid(pid_t nChild, int* pStatus, int nOptions) {
    return t_pSystem != nullptr ? nChild : __real_waitpid(nChild, pStatus, nOptions);
}

std::FILE* __wrap_popen(const char* szCommand, const char* szMode) {
    return t_pSystem != nullptr ? t_pSystem->OpenShell(szCommand) : __real_popen(szCommand, szMode);
}

int __wrap_pclose(std::FILE* pStream) {
    return t_pSystem != nullptr ? std::fclose(pStream) : __real_pclose(pStream);
}

std::time_t __wrap_time(std::time_t* pTime) {
    return t_pSystem != nullptr ? t_pSystem->Now() : __real_time(pTime);
}

int __wrap_nanosleep(const timespec* pTime, timespec* pLeft) {
    return t_pSystem != nullptr ? 0 : __real_nanosleep(pTime, pLeft);
}

// The caller's own thread stands for each that is created.
int __wrap_pthread_create(pthread_t* pThread, const pthread_attr_t* pAttributes,
                          void* (*pfnBody)(void*), void* pArgument) {
    if (t_pSystem == nullptr) {
        return __real_pthread_create(pThread, pAttributes, pfnBody, pArgument);
    }
    *pThread = pthread_self();
    return t_pSystem->RunThread(pfnBody, pArgument);
}

int __wrap_pthread_join(pthread_t thread, void** pResult) {
    return t_pSystem != nullptr ? 0 : __real_pthread_join(thread, pResult);
}

// Memory that was freed is kept back as long as an input can reach it, which is not long.
const char* __asan_default_options() {
    return "quarantine_size_mb=16";
}

}  // extern "C" NOLINTEND(bugprone-reserved-identifier)
