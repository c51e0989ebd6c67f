#include "services/userd/password.h"

#include <algorithm>
#include <array>
#include <crypt.h>
#include <cstdint>
#include <memory>
#include <sys/random.h>

namespace userd {
namespace {

// yescrypt, 16 MiB. What every hash of this cost begins with says so.
constexpr char method[] = "$y$";
constexpr std::string_view madePrefix = "$y$j9T$";
constexpr unsigned long cost = 5;

// The library's work space, which holds traces of the password afterwards.
class WorkSpace {
 public:
  WorkSpace() : data_(std::make_unique<crypt_data>()) {}
  WorkSpace(const WorkSpace&) = delete;
  WorkSpace& operator=(const WorkSpace&) = delete;
  ~WorkSpace() { wipe(data_.get(), sizeof *data_); }

  // Empty after a failure. Lives as long as the work space.
  [[nodiscard]] std::string_view run(const Secret& password, const char* setting) {
    const char* const hash = crypt_rn(password.c_str(), setting, data_.get(), static_cast<int>(sizeof *data_));
    return hash != nullptr ? std::string_view(hash) : std::string_view();
  }

 private:
  std::unique_ptr<crypt_data> data_;
};

bool isControl(char c) {
  return static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
}

const unsigned char* unsignedBytes(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

std::optional<Secret> acceptedPassword(std::string_view text) {
  if (text.empty() || text.size() > Secret::maxBytes || std::ranges::any_of(text, isControl)) return std::nullopt;
  return Secret(text);
}

std::optional<std::string> checkNewPassword(std::string_view text) {
  if (text.size() >= minPasswordBytes && acceptedPassword(text)) return std::nullopt;
  return "a password (string 3) has " + std::to_string(minPasswordBytes) + " to " + std::to_string(Secret::maxBytes) +
         " bytes and no control characters";
}

std::optional<std::string> hashPassword(const Secret& password) {
  std::array<char, CRYPT_GENSALT_OUTPUT_SIZE> setting{};
  if (crypt_gensalt_rn(method, cost, nullptr, 0, setting.data(), static_cast<int>(setting.size())) == nullptr) {
    return std::nullopt;
  }
  WorkSpace space;
  const std::string_view hash = space.run(password, setting.data());
  if (!isPasswordHash(hash)) return std::nullopt;
  return std::string(hash);
}

bool isRight(const Secret& password, const std::string& hash) {
  WorkSpace space;
  const std::string_view made = space.run(password, hash.c_str());
  const bool comparable = !password.empty() && isPasswordHash(made) && made.size() == hash.size();
  return comparable && equalInConstantTime(unsignedBytes(made), unsignedBytes(hash), hash.size());
}

bool isPasswordHash(std::string_view text) {
  // Prefix, salt, "$" and 43 characters of the hash itself.
  constexpr std::size_t fewestBytes = madePrefix.size() + 1 + 43;
  const auto isPlain = [](char c) { return c > ' ' && c <= '~'; };
  return text.starts_with(madePrefix) && text.size() >= fewestBytes && text.size() <= maxHashBytes &&
         std::ranges::all_of(text, isPlain);
}

std::optional<Secret> makePassword() {
  constexpr std::string_view letters = "abcdefghijkmnpqrstuvwxyz23456789";
  static_assert(letters.size() == 32);
  constexpr std::size_t groups = 5;
  constexpr std::size_t groupLetters = 4;
  std::array<std::uint8_t, groups * groupLetters> random{};
  if (::getrandom(random.data(), random.size(), 0) != static_cast<ssize_t>(random.size())) return std::nullopt;
  std::array<char, groups*(groupLetters + 1) - 1> text{};
  std::size_t at = 0;
  for (std::size_t i = 0; i < random.size(); ++i) {
    if (i != 0 && i % groupLetters == 0) text[at++] = '-';
    text[at++] = letters[random[i] % letters.size()];
  }
  Secret password(std::string_view(text.data(), text.size()));
  wipe(random.data(), random.size());
  wipe(text.data(), text.size());
  return password;
}

}  // namespace userd
