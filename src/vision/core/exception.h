#pragma once
// The vision library's one error type: every operator failure carries the
// operator name, a message and the library's error number.
#include <exception>
#include <string>

namespace vision {

// Error numbers in the reference library's numbering, for the families the
// operators here raise.
enum ErrorNumber : int {
  // Control parameters, read as vision/core/param.h describes.
  kErrWrongParamType = 1201,    // wrong type of a control parameter
  kErrWrongParamValue = 1301,   // wrong value of a control parameter
  kErrWrongParamCount = 1401,   // wrong number of values in a control parameter
  kErrWrongObject = 4050,       // wrong kind of iconic object (image vs. region)
  kErrImageSize = 3010,         // images of different sizes
  kErrEmptyInput = 2000,        // empty input object or region where one is needed
  kErrNoMemory = 6001,          // not enough memory
  kErrFile = 5200,              // file not found or not readable
  kErrFileFormat = 5280,        // file has a wrong format or version
  kErrHandle = 4060,            // invalid or cleared handle
  kErrNotImplemented = 9999,    // a parameter combination this library does not offer
  kErrUserDefined = 9000,       // raised by procedures with their own texts
};

class HException : public std::exception {
 public:
  HException(std::string op, std::string message, int error = kErrUserDefined)
      : op_(std::move(op)), message_(std::move(message)), error_(error),
        what_(op_.empty() ? message_ : op_ + ": " + message_) {}

  const std::string& ProcName() const { return op_; }
  const std::string& ErrorMessage() const { return message_; }
  int ErrorCode() const { return error_; }
  const char* what() const noexcept override { return what_.c_str(); }

 private:
  std::string op_, message_;
  int error_;
  std::string what_;
};

}  // namespace vision
