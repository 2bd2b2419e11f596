#include <hmisvc/outcome.h>

#include "proxies/call_record.h"

namespace hmisvc {

namespace detail {
void setLastOutcome(Outcome outcome) noexcept { t_last_outcome = outcome; }
} // namespace detail

const char *outcomeName(Outcome outcome) noexcept
{
    switch (outcome) {
    case Outcome::Ok:
        return "ok";
    case Outcome::NotRegistered:
        return "not registered";
    case Outcome::TransactionFailed:
        return "transaction failed";
    case Outcome::ReplyUndecodable:
        return "reply undecodable";
    case Outcome::TimedOut:
        return "timed out";
    case Outcome::NoDriver:
        return "no driver";
    }
    return "unknown";
}

Outcome lastOutcome() noexcept { return detail::t_last_outcome; }

CallError::CallError(Outcome outcome) : std::runtime_error(outcomeName(outcome)), outcome_(outcome) {}

} // namespace hmisvc
