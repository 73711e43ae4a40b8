#include "recordings/tar.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <span>
#include <string_view>

#include "base/text.h"

namespace {

constexpr std::size_t MOST_MEMBERS = 10000;
constexpr uint64_t MOST_LONG_NAME = 1 << 16;  // bytes of what comes before a file with a long name
constexpr uint64_t MOST_SIZE = uint64_t{1} << 62;

// Where a header has its fields.
struct Field {
    std::size_t offset, size;
};
constexpr Field NAME = {0, 100}, MODE = {100, 8}, USER = {108, 8}, GROUP = {116, 8}, SIZE = {124, 12}, TIME = {136, 12},
                CHECKSUM = {148, 8}, KIND = {156, 1}, MAGIC = {257, 8}, PREFIX = {345, 155};

using Header = std::array<uint8_t, TAR_BLOCK>;

std::string text_of(std::span<const uint8_t> bytes) {
    const std::string text(bytes.begin(), bytes.end());
    return text.substr(0, text.find('\0'));
}

std::span<const uint8_t> field_of(const Header& header, const Field& field) {
    return std::span(header).subspan(field.offset, field.size);
}

// An octal number between blanks, or, after a byte of 0x80, a binary one.
std::optional<uint64_t> number_of(std::span<const uint8_t> bytes) {
    uint64_t value = 0;
    if ((bytes[0] & 0x80) != 0) {
        if (bytes.size() < 9) return std::nullopt;  // a checksum is never that large
        for (const uint8_t byte : bytes.last(8)) value = value << 8 | byte;
        const auto high = bytes.subspan(1, bytes.size() - 9);
        const bool small = bytes[0] == 0x80 && std::ranges::all_of(high, [](uint8_t byte) { return byte == 0; });
        return small && value <= MOST_SIZE ? std::optional(value) : std::nullopt;
    }
    const std::string text = text_of(bytes);
    const std::size_t begin = std::min(text.find_first_not_of(' '), text.size());
    const char* const last = text.data() + text.size();
    const auto [stop, error] = std::from_chars(text.data() + begin, last, value, 8);
    const bool blank_after = std::all_of(stop, last, [](char c) { return c == ' '; });
    return error == std::errc() && blank_after ? std::optional(value) : std::nullopt;
}

// The sum of all bytes, those of the sum itself taken as blanks.
uint64_t checksum_of(const Header& header) {
    uint64_t sum = 0;
    for (std::size_t k = 0; k < header.size(); k++) {
        sum += k >= CHECKSUM.offset && k < CHECKSUM.offset + CHECKSUM.size ? uint64_t{' '} : header[k];
    }
    return sum;
}

// The value of a key in "LENGTH KEY=VALUE\n" records.
std::optional<std::string> pax_value(std::string_view records, std::string_view key) {
    std::optional<std::string> value;
    while (!records.empty()) {
        std::size_t length = 0;
        const auto [stop, error] = std::from_chars(records.data(), records.data() + records.size(), length);
        const auto head = static_cast<std::size_t>(stop - records.data()) + 1;
        if (error != std::errc() || length <= head || length > records.size()) return value;
        const std::string_view record = records.substr(head, length - head - 1);
        if (record.starts_with(key) && record.substr(key.size()).starts_with('='))
            value = record.substr(key.size() + 1);
        records.remove_prefix(length);
    }
    return value;
}

std::string name_of(const Header& header) {
    const std::string name = text_of(field_of(header, NAME));
    const bool ustar = text_of(field_of(header, MAGIC)).starts_with("ustar");
    const std::string prefix = ustar ? text_of(field_of(header, PREFIX)) : "";
    return prefix.empty() ? name : prefix + "/" + name;
}

void put(std::string& header, const Field& field, const std::string& text) {
    header.replace(field.offset, text.size(), text);
}

}  // namespace

std::vector<TarMember> tar_members(const InputFile& archive) {
    std::vector<TarMember> members;
    std::optional<std::string> long_name, long_size;  // from headers before the one that they belong to
    uint64_t offset = 0;
    for (std::size_t k = 0; k < MOST_MEMBERS; k++) {
        Header header{};
        if (archive.read_at(offset, header) < header.size()) break;
        const auto size = number_of(field_of(header, SIZE));
        if (!size || number_of(field_of(header, CHECKSUM)) != checksum_of(header)) break;
        TarMember member{long_name.value_or(name_of(header)), offset + TAR_BLOCK, *size};
        const auto kind = static_cast<char>(header[KIND.offset]);
        if (kind == 'x' || kind == 'L') {
            if (*size > MOST_LONG_NAME) break;
            std::vector<uint8_t> bytes(*size);
            bytes.resize(archive.read_at(member.offset, bytes));
            const std::string records(bytes.begin(), bytes.end());
            if (kind == 'L') {
                long_name = text_of(bytes);
            } else {
                long_name = pax_value(records, "path");
                long_size = pax_value(records, "size");
            }
        } else {
            if (long_size) {
                const char* const last = long_size->data() + long_size->size();
                const auto [stop, error] = std::from_chars(long_size->data(), last, member.size);
                if (error != std::errc() || stop != last || member.size > MOST_SIZE) break;
            }
            if (kind == '0' || kind == '\0' || kind == '7') members.push_back(member);
            long_name.reset();
            long_size.reset();
        }
        if (member.size > archive.size()) break;
        offset = member.offset + (member.size + TAR_BLOCK - 1) / TAR_BLOCK * TAR_BLOCK;
    }
    return members;
}

std::string tar_header(const std::string& name, uint64_t size) {
    constexpr uint64_t MOST_OCTAL = (uint64_t{1} << 33) - 1;
    std::string header(TAR_BLOCK, '\0');
    put(header, NAME, name.substr(0, NAME.size));
    put(header, MODE, "0000644");
    put(header, USER, "0000000");
    put(header, GROUP, "0000000");
    if (size <= MOST_OCTAL) {
        put(header, SIZE, format("%011llo", static_cast<unsigned long long>(size)));
    } else {
        header[SIZE.offset] = '\x80';
        for (std::size_t k = 0; k < 8; k++) {
            header[SIZE.offset + SIZE.size - 1 - k] = static_cast<char>(size >> (8 * k) & 0xFF);
        }
    }
    put(header, TIME, "00000000000");
    header[KIND.offset] = '0';
    put(header, MAGIC,
        std::string("ustar\0"
                    "00",
                    8));
    Header bytes{};
    std::ranges::transform(header, bytes.begin(), [](char c) { return static_cast<uint8_t>(c); });
    put(header, CHECKSUM, format("%06llo", static_cast<unsigned long long>(checksum_of(bytes))) + '\0' + ' ');
    return header;
}
