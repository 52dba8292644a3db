#include "transfer/UploadMessage.h"

#include <fmt/format.h>

#include <algorithm>
#include <cstring>
#include <stdexcept>

namespace {

void ExpectSize(const UploadMessage& message, std::size_t nBytes) {
    if (message.payload.size() != nBytes) {
        throw std::runtime_error(fmt::format("message {} has {} bytes, not {}", message.wCode,
                                             message.payload.size(), nBytes));
    }
}

// The body of a message with nPayload payload bytes, all 0, for offsets that count from the
// payload's start.
class CBody {
public:
    explicit CBody(std::size_t nPayload) : m_Bytes(nPayload - kUmBodyOffset) {}
    std::uint8_t* At(std::size_t nOffset) { return &m_Bytes[nOffset - kUmBodyOffset]; }
    FrameBytes Frame(std::uint16_t wCode) const {
        return MakeUploadFrame(wCode, m_Bytes.data(), m_Bytes.size());
    }

private:
    FrameBytes m_Bytes;
};

}  // namespace

UploadMessage OpenUploadFrame(const FrameBytes& frame) {
    UploadMessage message{0, {frame.begin() + kUmFrameHeadBytes, frame.end()}};
    if (!OpenUploadPayload(message.payload.data(), message.payload.size())) {
        throw std::runtime_error("a message with a wrong head");
    }
    message.wCode = LoadLe16(&message.payload[kUmCodeOffset]);
    return message;
}

std::uint32_t DecodeHello(const UploadMessage& message) {
    ExpectSize(message, kHelloBytes);
    return LoadLe32(&message.payload[kHelloVersionOffset]);
}

UploadInfo DecodeInfo(const UploadMessage& message) {
    ExpectSize(message, kInfoBytes);
    const std::uint8_t* const pPayload = message.payload.data();
    UploadInfo info;
    info.dwInfo1 = LoadLe32(pPayload + kInfo1Offset);
    info.dwInfo2 = LoadLe32(pPayload + kInfo2Offset);
    std::copy_n(pPayload + kInfo3Offset, info.info3.size(), info.info3.begin());
    info.byNode = pPayload[kInfoNodeOffset];
    info.byLanguage = pPayload[kInfoLanguageOffset];
    info.dwValue = LoadLe32(pPayload + kInfoValueOffset);
    return info;
}

UploadFileAnswer DecodeFileAnswer(const UploadMessage& message) {
    ExpectSize(message, kGetHlogAckBytes);
    return {LoadLe32(&message.payload[kGetHlogAckSizeOffset]),
            message.payload[kGetHlogAckResultOffset]};
}

LogRecord DecodeRecord(const UploadMessage& message) {
    const std::size_t nBytes = message.payload.size() - kUmBodyOffset;
    if (nBytes < kRecordHeadBytes || nBytes > kRecordBytes) {
        throw std::runtime_error(fmt::format("a live record of {} bytes", nBytes));
    }
    LogRecord record{};
    std::memcpy(&record, message.payload.data() + kUmBodyOffset, nBytes);
    return record;
}

FrameBytes MakeHelloAck(std::uint8_t byAnswer, std::uint32_t dwVersion) {
    CBody body(kHelloAckBytes);
    *body.At(kHelloAckAcceptOffset) = byAnswer;
    StoreLe32(body.At(kHelloAckVersionOffset), dwVersion);
    return body.Frame(UM_HELLO_ACK);
}

FrameBytes MakeInfoAck(std::uint8_t byAnswer) {
    CBody body(kInfoAckBytes);
    *body.At(kInfoAckOffset) = byAnswer;
    return body.Frame(UM_INFO_ACK);
}

FrameBytes MakeGetHlog(const std::string& strName, std::uint32_t dwStart) {
    if (strName.size() > kGetHlogNameBytes) {
        throw std::length_error(fmt::format("a file name of {} characters", strName.size()));
    }
    CBody body(kGetHlogBytes);
    std::copy(strName.begin(), strName.end(), body.At(kGetHlogNameOffset));
    StoreLe32(body.At(kGetHlogStartOffset), dwStart);
    return body.Frame(UM_GET_HLOG);
}

FrameBytes MakeCancel(std::uint32_t dwValue) {
    CBody body(kCancelBytes);
    StoreLe32(body.At(kCancelValueOffset), dwValue);
    return body.Frame(UM_CANCEL);
}

FrameBytes MakeCancelAck(std::uint32_t dwValue) {
    CBody body(kCancelAckBytes);
    StoreLe32(body.At(kCancelValueOffset), dwValue);
    std::memcpy(body.At(kCancelAckTextOffset), kCancelAckText, sizeof(kCancelAckText));
    return body.Frame(UM_CANCEL_ACK);
}

FrameBytes MakeSubscribe(const SubscriptionTable& table) {
    return MakeUploadFrame(UM_SUBSCRIBE, table.data(), table.size());
}

FrameBytes MakeSetLanguage(std::uint8_t byLanguage) {
    CBody body(kSetLanguageBytes);
    *body.At(kSetLanguageOffset) = byLanguage;
    return body.Frame(UM_SET_LANGUAGE);
}

SubscriptionTable MakeSubscription(const std::vector<ClientAndType>& wanted) {
    SubscriptionTable table{};
    for (const auto& [nClient, nType] : wanted) {
        table.at(static_cast<std::size_t>(nClient) * kSubscribeTypes +
                 static_cast<std::size_t>(nType)) = 1;
    }
    return table;
}

bool IsSubscribed(const SubscriptionTable& table, std::int32_t nClient, std::int32_t nType) {
    constexpr auto kTypes = static_cast<std::int32_t>(kSubscribeTypes);
    constexpr auto kClients = static_cast<std::int32_t>(kSubscribeClients);
    return nClient >= 0 && nClient < kClients && nType >= 0 && nType < kTypes &&
           table.at(static_cast<std::size_t>(nClient) * kSubscribeTypes +
                    static_cast<std::size_t>(nType)) != 0;
}
