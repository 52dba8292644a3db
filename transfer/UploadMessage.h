// The messages of a history upload as a receiver reads and writes them (link/UploadFrame.h has the
// layouts). No socket: whoever has one hands over whole frames.
//
// What reads a message throws std::runtime_error, naming what is wrong, when it has another length
// than its code demands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "link/CmdFrame.h"
#include "link/UploadFrame.h"
#include "logstore/LogRecord.h"
#include "transfer/FrameBytes.h"

struct UploadMessage {
    std::uint16_t wCode = 0;
    FrameBytes payload;  // unscrambled, with its head: the offsets of link/UploadFrame.h apply

    bool operator==(const UploadMessage&) const = default;
};

// What UM_INFO tells.
struct UploadInfo {
    std::uint32_t dwInfo1 = 0;  // these three come from the agent's request
    std::uint32_t dwInfo2 = 0;
    std::array<std::uint8_t, kBlockInfo3Bytes> info3{};
    std::uint8_t byNode = 0;
    std::uint8_t byLanguage = 0;
    std::uint32_t dwValue = 0;  // kInfoValue

    bool operator==(const UploadInfo&) const = default;
};

// What UM_GET_HLOG_ACK tells.
struct UploadFileAnswer {
    std::uint32_t dwSize = 0;   // of the whole file; counts when it was found
    std::uint8_t byResult = 0;  // kGetHlogFound, ...

    bool operator==(const UploadFileAnswer&) const = default;
};

using SubscriptionTable = std::array<std::uint8_t, kSubscribeTableBytes>;
using ClientAndType = std::pair<int, int>;  // 0 to 99, 0 to 3

// The message of a frame that CBuff::CheckF1Frame has measured. Throws when its head is wrong.
UploadMessage OpenUploadFrame(const FrameBytes& frame);

std::uint32_t DecodeHello(const UploadMessage& message);  // the protocol's version
UploadInfo DecodeInfo(const UploadMessage& message);
UploadFileAnswer DecodeFileAnswer(const UploadMessage& message);
// A live record, filled up with NULs. Throws when it is shorter than a record's head or longer than
// a record.
LogRecord DecodeRecord(const UploadMessage& message);

// Whole frames of a receiver; those without a body are MakeUploadFrame(UM_...).
FrameBytes MakeHelloAck(std::uint8_t byAnswer = kHelloAccepted,
                        std::uint32_t dwVersion = kLowestReceiverVersion);
FrameBytes MakeInfoAck(std::uint8_t byAnswer = kInfoAccepted);
// strName: at most kGetHlogNameBytes, std::length_error otherwise.
FrameBytes MakeGetHlog(const std::string& strName, std::uint32_t dwStart);
FrameBytes MakeCancel(std::uint32_t dwValue);
FrameBytes MakeSubscribe(const SubscriptionTable& table);
FrameBytes MakeSetLanguage(std::uint8_t byLanguage);

// The answer of a session to MakeCancel(dwValue).
FrameBytes MakeCancelAck(std::uint32_t dwValue);

// The table that wants these. Throws std::out_of_range.
SubscriptionTable MakeSubscription(const std::vector<ClientAndType>& wanted);

// Whether the table wants the records of that client and type, which may be any numbers.
bool IsSubscribed(const SubscriptionTable& table, std::int32_t nClient, std::int32_t nType);
