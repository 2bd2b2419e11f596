/**
 * @file
 * Failure as a value: what became of the last proxy call made on the calling
 * thread, and a result type that carries it.
 *
 * The proxies keep their designed return values and lines ("Fail binder
 * call ..." on standard output, failure values that can look like answers).
 * Besides, every proxy call records its outcome for the thread that made
 * it, so an application can tell a real answer from a failure value without
 * reading output:
 *
 * @code
 * int level = backlight->GetBrightness();
 * if (hmisvc::lastOutcome() != hmisvc::Outcome::Ok)
 *     showError(hmisvc::outcomeName(hmisvc::lastOutcome()));
 * @endcode
 */
#ifndef HMISVC_OUTCOME_H
#define HMISVC_OUTCOME_H

#include <optional>
#include <stdexcept>
#include <string>
#include <utility>

#include <hmisvc/export.h>

/// Additions beside the designed classes.
namespace hmisvc {

/// What became of one proxy call.
enum class Outcome {
    Ok,               ///< the service answered and the answer decoded
    NotRegistered,    ///< the proxy has no service: its name was not registered (nothing was sent); for a
                      ///< supervised call: not registered within the lookup limit or the call's time limit
    TransactionFailed,///< the transaction failed in the driver (service dead, reply refused, buffer overflow)
    ReplyUndecodable, ///< the service answered, but the reply was too short or its record did not decode
    TimedOut,         ///< a supervised call passed its time limit after it was sent (hmisvc::Service)
    NoDriver,         ///< a supervised call found no usable binder driver: /dev/binder cannot be opened
                      ///< (a plain proxy says NotRegistered then)
};

/// A short lower-case name of @p outcome: "ok", "not registered",
/// "transaction failed", "reply undecodable", "timed out", "no driver".
HMISVC_API const char *outcomeName(Outcome outcome) noexcept;

/// The outcome of the last proxy call made on the calling thread (Outcome::Ok
/// before the first). Every proxy method that makes a transaction records
/// it; SystemManager::UDiskMounted(), which makes none, leaves it alone.
HMISVC_API Outcome lastOutcome() noexcept;

/// Thrown by Result::value() when the call did not succeed.
class HMISVC_API CallError : public std::runtime_error {
public:
    /// An error for a call that ended with @p outcome.
    explicit CallError(Outcome outcome);
    /// What became of the call.
    Outcome outcome() const noexcept { return outcome_; }

private:
    Outcome outcome_;
};

/// The result of a supervised call: the method's value when the call
/// succeeded, otherwise only why it did not.
///
/// A failed call holds no value, not even the designed failure value, so a
/// failure cannot be taken for an answer.
template <class T> class Result {
public:
    /// A successful result holding @p value.
    explicit Result(T value) : outcome_(Outcome::Ok), value_(std::move(value)) {}
    /// A failed result; @p outcome is not Outcome::Ok.
    explicit Result(Outcome outcome) : outcome_(outcome) {}

    /// Whether the call succeeded.
    bool ok() const noexcept { return outcome_ == Outcome::Ok; }
    /// Same as ok().
    explicit operator bool() const noexcept { return ok(); }
    /// What became of the call.
    Outcome outcome() const noexcept { return outcome_; }
    /// The value; throws CallError when the call did not succeed.
    const T &value() const & { return checked(), *value_; }
    /// The value; throws CallError when the call did not succeed.
    T &value() & { return checked(), *value_; }
    /// The value, moved out; throws CallError when the call did not succeed.
    T &&value() && { return checked(), std::move(*value_); }
    /// The value, as value() gives it.
    const T &operator*() const & { return value(); }
    /// The value's members, as value() gives them.
    const T *operator->() const { return &value(); }
    /// The value, or @p fallback when the call did not succeed.
    T valueOr(T fallback) const { return ok() ? *value_ : std::move(fallback); }

private:
    void checked() const
    {
        if (!ok())
            throw CallError(outcome_);
    }
    Outcome outcome_;
    std::optional<T> value_;
};

/// The result of a supervised call of a method without a value.
template <> class Result<void> {
public:
    /// A result ending with @p outcome.
    explicit Result(Outcome outcome = Outcome::Ok) : outcome_(outcome) {}
    /// Whether the call succeeded.
    bool ok() const noexcept { return outcome_ == Outcome::Ok; }
    /// Same as ok().
    explicit operator bool() const noexcept { return ok(); }
    /// What became of the call.
    Outcome outcome() const noexcept { return outcome_; }
    /// Throws CallError when the call did not succeed.
    void value() const
    {
        if (!ok())
            throw CallError(outcome_);
    }

private:
    Outcome outcome_;
};

namespace detail {
/// Records @p outcome as the calling thread's last one (for the supervised
/// layer, which decides some outcomes itself).
HMISVC_API void setLastOutcome(Outcome outcome) noexcept;
} // namespace detail

} // namespace hmisvc

#endif
