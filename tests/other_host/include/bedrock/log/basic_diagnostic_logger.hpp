#pragma once

#include <sstream>
#include <string>
#include <utility>

namespace bedrock::log {

class diagnostic_record {
  public:
    explicit diagnostic_record(std::string logger) : fLogger(std::move(logger)) {}
    ~diagnostic_record();
    diagnostic_record(const diagnostic_record&) = delete;
    diagnostic_record& operator=(const diagnostic_record&) = delete;

    template <typename Value>
    diagnostic_record& operator<<(const Value& value) {
        fText << value;
        return *this;
    }

  private:
    std::string fLogger;
    std::ostringstream fText;
};

class basic_diagnostic_logger {
  public:
    explicit basic_diagnostic_logger(std::string name) : fName(std::move(name)) {}
    bool enabled(int level) const;
    diagnostic_record record(int /*level*/) const { return diagnostic_record(fName); }

  private:
    std::string fName;
};

}  // namespace bedrock::log
