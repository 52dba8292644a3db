// Scope guards: what was opened in a function is closed on every way out of it.
//
// Threads: a guard belongs to the function that it stands in.
#pragma once

namespace pcxx {

// What every guard has in common. Guards are neither copied nor destroyed through this base.
class ScopeGuardImplBase {
public:
    ScopeGuardImplBase(const ScopeGuardImplBase&) = delete;
    ScopeGuardImplBase& operator=(const ScopeGuardImplBase&) = delete;

    // The guard does nothing at its end; the caller closes what it held.
    void Dismiss() noexcept { m_bDismissed = true; }

protected:
    ScopeGuardImplBase() = default;
    ~ScopeGuardImplBase() = default;

    virtual void Execute() = 0;  // the closing itself

    bool m_bDismissed = false;
};

// Calls function(argument) at the end of the scope, with the value that the variable has by then;
// the result is ignored and an exception is dropped. The variable must outlive the guard:
//     pcxx::ScopeGuardImpl1 guard(std::fclose, pFile);
template <typename Function, typename Argument>
class ScopeGuardImpl1 final : public ScopeGuardImplBase {
public:
    ScopeGuardImpl1(Function function, Argument& argument)
        : m_function(function), m_argument(argument) {}

    ~ScopeGuardImpl1() {
        if (m_bDismissed) {
            return;
        }
        try {
            Execute();
        } catch (...) {
            // Nobody is left to tell.
        }
    }

private:
    void Execute() override { static_cast<void>(m_function(m_argument)); }

    Function m_function;
    Argument& m_argument;
};

}  // namespace pcxx
