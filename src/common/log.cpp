#include "common/log.h"

#include <array>
#include <charconv>
#include <cstdio>
#include <cstring>
#include <utility>

#include <uuid/uuid.h>

namespace nfslib {

namespace logging {
std::atomic<unsigned> keptLevels{0};
}

namespace {

// Drops every line.
class CNfsLibLoggerStub : public INfsLibLogSection {
 public:
  CNfsLibLoggerStub() {
    for (const LogLevel level : {LogLevel::dbg, LogLevel::info, LogLevel::warn, LogLevel::err}) {
      discard(level);
    }
  }
  void info(const std::string&) override {}
  void info(int, const std::string&) override {}
  void addSessionInfo(const std::string&) override {}
  void dbg(const std::string&) override {}
  void dbg(int, const std::string&) override {}
  void warn(const std::string&) override {}
  void warn(std::exception&) override {}
  void warn(const std::string&, std::exception&) override {}
  void addSessionWarn(const std::string&) override {}
  void err(const std::string&) override {}
  void err(const std::string&, std::exception&) override {}
  void err(std::exception&) override {}
  void addSessionErr(const std::string&) override {}
};

}  // namespace

INfsLibLogSection::~INfsLibLogSection() = default;

void INfsLibLogSection::warn(const std::string& format, const std::string& a, std::exception& e) {
  warn(utility::str_format(format, {a}), e);
}
void INfsLibLogSection::warn(const std::string& format, const std::string& a, const std::string& b,
                             std::exception& e) {
  warn(utility::str_format(format, {a, b}), e);
}
void INfsLibLogSection::warn(const std::string& format, const std::string& a, const std::string& b,
                             const std::string& c, std::exception& e) {
  warn(utility::str_format(format, {a, b, c}), e);
}
void INfsLibLogSection::warn(const std::string& format, const std::string& a, const std::string& b,
                             const std::string& c, const std::string& d, std::exception& e) {
  warn(utility::str_format(format, {a, b, c, d}), e);
}
void INfsLibLogSection::err(const std::string& format, const std::string& a, std::exception& e) {
  err(utility::str_format(format, {a}), e);
}
void INfsLibLogSection::err(const std::string& format, const std::string& a, const std::string& b,
                            std::exception& e) {
  err(utility::str_format(format, {a, b}), e);
}
void INfsLibLogSection::err(const std::string& format, const std::string& a, const std::string& b,
                            const std::string& c, std::exception& e) {
  err(utility::str_format(format, {a, b, c}), e);
}
void INfsLibLogSection::err(const std::string& format, const std::string& a, const std::string& b,
                            const std::string& c, const std::string& d, std::exception& e) {
  err(utility::str_format(format, {a, b, c, d}), e);
}

CNfsLibLogger::CNfsLibLogger() { resetImpl(); }
CNfsLibLogger::~CNfsLibLogger() { logging::keptLevels = 0; }

CNfsLibLogger& CNfsLibLogger::getInstance() {
  static CNfsLibLogger instance;
  return instance;
}

std::shared_ptr<INfsLibLogSection> CNfsLibLogger::getImpl() const {
  const std::lock_guard lock(m_lock);
  return m_impl;
}

void CNfsLibLogger::setImpl(std::unique_ptr<INfsLibLogSection> impl) {
  if (!impl) return resetImpl();
  replace(std::move(impl));
}

void CNfsLibLogger::resetImpl() { replace(std::make_shared<CNfsLibLoggerStub>()); }

void CNfsLibLogger::replace(std::shared_ptr<INfsLibLogSection> impl) {
  unsigned kept = 0;
  for (const LogLevel level : {LogLevel::dbg, LogLevel::info, LogLevel::warn, LogLevel::err}) {
    if (impl->keeps(level)) kept |= 1U << static_cast<unsigned>(level);
  }
  const std::lock_guard lock(m_lock);
  m_impl.swap(impl);
  logging::keptLevels = kept;
  // The former sink is released by whoever holds it last, here at the latest.
}

template <>
std::string to_hex<std::byte>(std::byte value) {
  constexpr std::string_view digits = "0123456789ABCDEF";
  const auto bits = std::to_integer<unsigned>(value);
  return {digits[bits >> 4U], digits[bits & 15U]};
}

namespace utility {

std::string str_format(const std::string& format, const std::vector<std::string>& args) {
  std::string result;
  result.reserve(format.size() + 32 * args.size());
  const char* const end = format.data() + format.size();
  for (const char* at = format.data(); at != end;) {
    if (*at != '%' || at + 1 == end) {
      result += *at++;
      continue;
    }
    ++at;
    // A number as strtol reads it, without its dependence on the locale: blanks, a sign, digits.
    const char* digits = at;
    while (digits != end && std::strchr(" \t\n\v\f\r", *digits) != nullptr && *digits != '\0')
      ++digits;
    const bool plus = digits != end && *digits == '+';
    if (plus) ++digits;
    long number = 0;
    const auto [rest, error] = std::from_chars(digits, end, number);
    if (error == std::errc::invalid_argument || (plus && *digits == '-')) {
      result += '%';
      continue;
    }
    at = rest;
    if (error == std::errc() && number >= 1 && static_cast<std::size_t>(number) <= args.size()) {
      result += args[static_cast<std::size_t>(number) - 1];
    } else {
      result += '%';
      result += error == std::errc() ? std::to_string(number) : std::string(digits, rest);
    }
  }
  return result;
}

std::string str_format(const std::string& format) { return format; }

std::string str_format(const std::string& format, va_list args) {
  std::array<char, 4095> buffer{};
  std::vsnprintf(buffer.data(), buffer.size(), format.c_str(), args);
  return buffer.data();
}

std::string getErrnoDescription(int errnum) {
  std::array<char, 256> buffer{};
  // Two systems' strerror_r: one returns the text, the other fills the buffer and returns a number.
  const auto textOf = [&](auto result) -> std::string {
    if constexpr (std::is_pointer_v<decltype(result)>) {
      return result == nullptr ? "" : result;
    } else {
      return result == 0 ? buffer.data() : "";
    }
  };
  const std::string text = textOf(strerror_r(errnum, buffer.data(), buffer.size()));
  return text.empty() ? "POSIX error: " + std::to_string(errnum) : text;
}

std::string guidToStr(unsigned char* uuid) {
  std::array<char, 37> text{};
  uuid_unparse_lower(uuid, text.data());
  return std::string("{") + text.data() + "}";
}

}  // namespace utility
}  // namespace nfslib
