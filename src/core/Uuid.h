#pragma once

#include <array>
#include <compare>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace osv {

// A 128-bit identifier. Text form is canonical upper case,
// "E621E1F8-C36C-495A-93FC-0C247A3E6E5F"; parsing accepts either case.
class Uuid {
public:
    Uuid() = default;  // the nil UUID
    explicit Uuid(const std::array<std::uint8_t, 16>& bytes) : bytes_(bytes) {}

    // A fresh random (version 4) UUID, unless a sequence is installed (see below).
    static Uuid random();
    static std::optional<Uuid> parse(std::string_view text);

    std::string text() const;
    const std::array<std::uint8_t, 16>& bytes() const { return bytes_; }
    bool isNil() const;

    auto operator<=>(const Uuid&) const = default;

    // Makes random() on this thread return 00000000-0000-4000-8000-{counter} from 1 on,
    // for output that must be reproducible (tests, scripted replays). Restores on destruction.
    class DeterministicSequence {
    public:
        DeterministicSequence();
        ~DeterministicSequence();
        DeterministicSequence(const DeterministicSequence&) = delete;
        DeterministicSequence& operator=(const DeterministicSequence&) = delete;

    private:
        std::optional<std::uint64_t> previous_;
    };

private:
    std::array<std::uint8_t, 16> bytes_{};
};

struct UuidHash {
    std::size_t operator()(const Uuid& u) const noexcept;
};

}  // namespace osv

template <>
struct std::hash<osv::Uuid> : osv::UuidHash {};
