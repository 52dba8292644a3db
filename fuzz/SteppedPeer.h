// A peer of a thread of the service that an input scripts: each time that the thread waits, the
// peer does the next step, which is to send something or to let something happen around the thread.
//
// Input: flags; then steps, each a byte of its kind (even: to send) and what that kind takes.
// Threads: the target's only one.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>

#include "fuzz/FakeSystem.h"
#include "fuzz/InputBytes.h"

class CSteppedPeer {
public:
    CSteppedPeer(const CSteppedPeer&) = delete;
    CSteppedPeer& operator=(const CSteppedPeer&) = delete;

protected:
    explicit CSteppedPeer(CInputBytes input);
    virtual ~CSteppedPeer() = default;

    bool Has(std::uint8_t byFlag) const { return (m_byFlags & byFlag) != 0; }

    // Any number stands for one of the ways in which connecting ends.
    void PlanConnect(std::uint8_t byPlan);

    // To the newest connection, if there is one.
    void Send(const std::string& strBytes) const;
    // bCut: the input says how many bytes go now; the others go in place of the next step.
    void SendInParts(std::string strBytes, bool bCut);

    // From every connection.
    void Read(std::size_t nMost = SIZE_MAX);

    // Half of the newest connection ends, or all of it once CheckPeer has seen it.
    void Hangup();

    // Into a thread's pipe: a message of the queue, and one of a timer or of no kind that there is.
    void PostQueueMsg(int nPipe);
    void PostTimerMsg(int nPipe);

    // The bytes that go in place of the next step at which there is a connection.
    void Keep(std::string strBytes) { m_strKept = std::move(strBytes); }

    CInputBytes m_Input;
    const std::uint8_t m_byFlags;
    CFakeSystem m_System;

private:
    void Step();

    // What is done in place of a step of the input; false: nothing.
    virtual bool StepAside();
    // A step of the kind byKind, 0 to 127.
    virtual void SendSomething(std::uint8_t byKind) = 0;
    virtual void LetSomethingHappen(std::uint8_t byKind) = 0;
    // At the end of the input: tells the thread to stop.
    virtual void StopThread() = 0;
    // What must hold of the bytes that a connection got.
    virtual void CheckPeer(const CPeerEnd&) const {}

    std::string m_strKept;
};
