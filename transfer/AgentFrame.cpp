#include "transfer/AgentFrame.h"

#include <fmt/format.h>

#include <algorithm>
#include <stdexcept>

namespace {

void Expect(const char* szWhat, std::uint32_t dwFound, std::uint32_t dwExpected) {
    if (dwFound != dwExpected) {
        throw std::runtime_error(
            fmt::format("agent: {} is {}, not {}", szWhat, dwFound, dwExpected));
    }
}

AgentFrame MakeAddressFrame(std::uint8_t byCommand, std::size_t nBytes, std::size_t nAddressOffset,
                            std::uint32_t dwAddress, std::uint8_t byNode) {
    AgentFrame frame{byCommand, FrameBytes(nBytes)};
    StoreLe32(&frame.payload[nAddressOffset], dwAddress);
    frame.payload[nAddressOffset + 4] = byNode;
    return frame;
}

}  // namespace

FrameBytes AgentFrame::Encode() const {
    return MakeCmdFrame(byCommand, payload.data(), payload.size());
}

FrameBytes AgentRequest::Encode() const {
    FrameBytes block(kRequestBlockBytes);
    StoreLe16(&block[kBlockCommandOffset], kRequestBlockCommand);
    StoreLe32(&block[kBlockEchoOffset], dwEcho);
    StoreLe32(&block[kBlockAddressOffset], dwAddress);
    StoreLe16(&block[kBlockPortOffset], wPort);
    StoreLe16(&block[kBlockPortOffset + 2], wUnused);
    StoreLe32(&block[kBlockInfo1Offset], dwInfo1);
    StoreLe32(&block[kBlockInfo2Offset], dwInfo2);
    std::copy(info3.begin(), info3.end(), block.begin() + kBlockInfo3Offset);
    return block;
}

const char* AnswerText(std::uint32_t dwResult) {
    switch (dwResult) {
        case 0:
            return "no session could be started";
        case 1:
            return "the session got no socket";
        case 2:
            return "receiver cannot be connected";
        case 3:
            return "refused by the receiver";
        case 5:
            return "the receiver did not complete the handshake";
        default:
            return "unknown";
    }
}

AgentFrame MakeRegisterAck(std::uint32_t dwAddress, std::uint8_t byNode, std::uint32_t dwValue) {
    static_assert(kRegisterAckNodeOffset == kRegisterAckAddressOffset + 4);
    AgentFrame frame = MakeAddressFrame(CMD_REGISTER_ACK, kRegisterAckBytes,
                                        kRegisterAckAddressOffset, dwAddress, byNode);
    StoreLe32(frame.payload.data(), dwValue);
    return frame;
}

AgentFrame MakeParameters(std::uint32_t dwAddress, std::uint8_t byNode) {
    static_assert(kParametersNodeOffset == kParametersAddressOffset + 4);
    return MakeAddressFrame(CMD_PARAMETERS, kParametersBytes, kParametersAddressOffset, dwAddress,
                            byNode);
}

AgentFrame MakeHlogRequest(std::uint32_t dwId, const FrameBytes& block) {
    AgentFrame frame{CMD_HLOG_REQUEST, FrameBytes(kHlogBlockOffset + block.size())};
    StoreLe32(&frame.payload[kHlogIdOffset], dwId);
    StoreLe32(&frame.payload[kHlogBlockLengthOffset], static_cast<std::uint32_t>(block.size()));
    std::copy(block.begin(), block.end(), frame.payload.begin() + kHlogBlockOffset);
    return frame;
}

AgentFrame MakeHlogRequest(std::uint32_t dwId, const AgentRequest& request) {
    return MakeHlogRequest(dwId, request.Encode());
}

AgentAnswer DecodeAnswer(const AgentFrame& frame) {
    Expect("the command of an answer", frame.byCommand, CMD_ANSWER);
    Expect("the size of an answer", static_cast<std::uint32_t>(frame.payload.size()), kAnswerBytes);
    const std::uint8_t* const pAnswer = frame.payload.data();
    Expect("the length in an answer", LoadLe32(pAnswer + kAnswerLengthOffset), kAnswerLengthValue);
    Expect("the tag of an answer", pAnswer[kAnswerTagOffset], kAnswerTagValue);
    Expect("the block length in an answer", LoadLe32(pAnswer + kAnswerBlockLengthOffset),
           kRequestBlockBytes);
    Expect("the block command in an answer", LoadLe16(pAnswer + kAnswerCommandOffset),
           kAnswerCommand);
    // Where the request block would start if all of it were there.
    const std::uint8_t* const pBlock = pAnswer + kAnswerBlockOffset - kBlockAddressOffset;
    AgentAnswer answer;
    answer.dwId = LoadLe32(pAnswer + kAnswerIdOffset);
    answer.dwResult = LoadLe32(pAnswer + kAnswerResultOffset);
    answer.request.dwEcho = LoadLe32(pAnswer + kAnswerEchoOffset);
    answer.request.dwAddress = LoadLe32(pBlock + kBlockAddressOffset);
    answer.request.wPort = LoadLe16(pBlock + kBlockPortOffset);
    answer.request.wUnused = LoadLe16(pBlock + kBlockPortOffset + 2);
    answer.request.dwInfo1 = LoadLe32(pBlock + kBlockInfo1Offset);
    answer.request.dwInfo2 = LoadLe32(pBlock + kBlockInfo2Offset);
    std::copy_n(pBlock + kBlockInfo3Offset, kBlockInfo3Bytes, answer.request.info3.begin());
    return answer;
}

void ExpectRegistration(const AgentFrame& frame) {
    Expect("the command of a registration", frame.byCommand, CMD_REGISTER);
    Expect("the size of a registration", static_cast<std::uint32_t>(frame.payload.size()), 4);
    Expect("the value of a registration", LoadLe32(frame.payload.data()), kRegisterValue);
}
