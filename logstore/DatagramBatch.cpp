#include "logstore/DatagramBatch.h"

#include <cerrno>

CDatagramBatch::CDatagramBatch() {
    for (std::size_t i = 0; i < kMost; ++i) {
        m_Buffers[i] = {&m_Records[i], sizeof(LogRecord)};
        m_Messages[i].msg_hdr.msg_iov = &m_Buffers[i];
        m_Messages[i].msg_hdr.msg_iovlen = 1;
    }
}

bool CDatagramBatch::Receive(int nSocket) {
    const int nReceived = recvmmsg(nSocket, m_Messages.data(), kMost, MSG_DONTWAIT, nullptr);
    m_nCount = nReceived > 0 ? static_cast<std::size_t>(nReceived) : 0;
    // A datagram with a wrong checksum wakes select and is gone when it is asked for.
    return nReceived >= 0 || errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR;
}
