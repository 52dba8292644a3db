// The engineer's side of the service's debug console, without socket, terminal and clock: takes
// what came, says what to send, and hands out the lines of the relay.
//
// Threads: no lock inside; an object belongs to one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

struct ConsoleClient {
    std::string strName;
    std::int32_t nIndex;
};

// A line of the relay; all of it as the service sent it.
struct RelayLine {
    std::string_view strName;
    std::string_view strStamp;
    std::string_view strText;
};

class CConsoleDialog {
public:
    enum class EState { kWelcome, kLogin, kSet, kRelay, kLeaving, kDone, kFailed };

    struct Wishes {
        std::string strPassword;
        std::string strClient;     // name or index; empty: the list of clients only
        std::uint16_t wValue = 1;  // handed to the client
    };

    struct Events {
        std::function<void(std::string_view)> fnSend;
        std::function<void(const std::vector<ConsoleClient>&)>
            fnClients;  // when only they are wanted
        std::function<void(const RelayLine&)> fnLine;
    };

    CConsoleDialog(const Wishes& wishes, Events events)
        : m_Wishes(wishes), m_Events(std::move(events)) {}

    // Bytes of the connection, in order and in any pieces.
    void Take(std::string_view strBytes);

    // The connection was closed by the other side.
    void OnClosed();

    // Ends a relay: the client is told to stop, and the state is kDone when the service has said
    // so.
    void Leave();

    EState State() const { return m_eState; }

    // With kFailed: why, with whatever the other side said as it came; empty in every other state.
    const std::string& Reason() const { return m_strReason; }

    // The failure may pass when one tries again later.
    bool MayPass() const { return m_bMayPass; }

private:
    bool Step();
    bool StepWelcome();
    bool StepHelp();
    bool StepSet();
    bool StepRelay();
    bool StepLeaving();
    void Pick(const std::vector<ConsoleClient>& clients);
    void HandLine(std::string_view strLine);
    void Fail(const std::string& strReason, bool bMayPass);

    const Wishes& m_Wishes;
    Events m_Events;
    EState m_eState = EState::kWelcome;
    std::string m_strWaiting;  // came and was not acted on
    std::string m_strReason;
    std::string m_strPicked;  // name of the client that is shown
    bool m_bMayPass = false;
};
