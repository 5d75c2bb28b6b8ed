#pragma once

#include <cstddef>
#include <stdexcept>
#include <string>

namespace kavrin {

// Raised by every decoder of the wire format. what() is the message text exactly; the texts are
// fixed English sentences that callers and tests may compare. Plain values, any thread.
class OSCDecodeError : public std::runtime_error {
  public:
    enum class Case { malformed, unexpectedType, internalInconsistency };

    OSCDecodeError(Case errorCase, std::string message);
    static OSCDecodeError malformed(std::string message);

    Case errorCase() const { return case_; }

  private:
    Case case_;
};

// Raised by the encoders: `general` for a value that cannot be written, `unexpectedEncoder` for
// a registration whose encoder does not fit its tag identity.
class OSCEncodeError : public std::runtime_error {
  public:
    enum class Case { general, unexpectedEncoder };

    OSCEncodeError(Case errorCase, std::string message);

    Case errorCase() const { return case_; }

  private:
    Case case_;
};

// Raised by OSCSerialization::registerKind when a tag character already has an owner.
class OSCSerializationError : public std::runtime_error {
  public:
    enum class Case { tagAlreadyRegistered };

    OSCSerializationError(Case errorCase, std::string message);

    Case errorCase() const { return case_; }

  private:
    Case case_;
};

// Raised by OSCMessage::masked when the values do not fit the requested kinds. For a type
// mismatch, index() is the position of the offending value; for a wrong count it is the count
// found.
class OSCValueMaskError : public std::runtime_error {
  public:
    enum class Case { wrongCount, typeMismatch };

    OSCValueMaskError(Case errorCase, std::size_t index, std::string message);

    Case errorCase() const { return case_; }
    std::size_t index() const { return index_; }

  private:
    Case case_;
    std::size_t index_;
};

}  // namespace kavrin
