// libcurl by the names of its functions, as SoapySDR in soapy.cpp: nothing of it is needed to build, or to read files.
#include "sources/url_file.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <optional>
#include <string_view>
#include <utility>

#include "base/interrupts.h"
#include "base/text.h"
#include "liborvel.h"
#include "system/libraries.h"

namespace {

constexpr uint64_t FIRST_BYTES = 1 << 14;  // of a part that does not follow another; what follows is twice as long,
constexpr uint64_t MOST_BYTES = 4 << 20;   // up to this
constexpr std::size_t MOST_PARTS = 4;      // kept
constexpr uint64_t MOST_SIZE = uint64_t{1} << 62;
constexpr std::size_t MOST_HEADER = 1 << 12;  // bytes of a line that is looked at
constexpr long MOST_REDIRECTIONS = 5;

// Of curl/curl.h, which never change.
enum Setting {
    WRITE_DATA = 10001,
    URL = 10002,
    RANGE = 10007,
    USER_AGENT = 10018,
    HEADERS = 10023,
    HEADER_DATA = 10029,
    PROTOCOLS = 10318,
    REDIRECTION_PROTOCOLS = 10319,
    WRITE_FUNCTION = 20011,
    HEADER_FUNCTION = 20079,
    LEAST_BYTES_PER_S = 19,
    LEAST_FOR_S = 20,
    FOLLOW = 52,
    REDIRECTIONS = 68,
    NO_SIGNAL = 99,
    TIMEOUT_MS = 155,
    CONNECT_TIMEOUT_MS = 156
};
constexpr int RESPONSE_CODE = 0x200002;
constexpr long ALL = 3;  // to initialise

constexpr long OK = 200, PARTIAL = 206, NO_SUCH_RANGE = 416, CHANGED = 412, TOO_MANY = 429, TIMED_OUT = 408;

bool may_pass(long status) {
    return status == TOO_MANY || status == TIMED_OUT || status >= 500;
}

struct Api {
    static const Api& instance() {
        static const Api api;
        return api;
    }

    int (*global_init)(long);
    void* (*init)();
    int (*set)(void*, int, ...);
    int (*perform)(void*);
    int (*info)(void*, int, ...);
    void (*cleanup)(void*);
    const char* (*text_of)(int);
    void* (*list_append)(void*, const char*);
    void (*list_free)(void*);

  private:
    Api() : library_(load_library({"libcurl.so.4", "libcurl-gnutls.so.4", "libcurl-x64.dll", "libcurl.dll"})) {
        if (library_ == nullptr) throw IoError("libcurl is not installed (libcurl4): URLs cannot be read");
        take("curl_global_init", global_init);
        take("curl_easy_init", init);
        take("curl_easy_setopt", set);
        take("curl_easy_perform", perform);
        take("curl_easy_getinfo", info);
        take("curl_easy_cleanup", cleanup);
        take("curl_easy_strerror", text_of);
        take("curl_slist_append", list_append);
        take("curl_slist_free_all", list_free);
        global_init(ALL);
    }

    template <class Function>
    void take(const char* name, Function& function) {
        function = reinterpret_cast<Function>(find_symbol(library_, name));
        if (function == nullptr) throw IoError(std::string("libcurl has no ") + name);
    }

    void* library_;
};

std::optional<uint64_t> take_number(std::string_view& text) {
    uint64_t value = 0;
    const auto [stop, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || value > MOST_SIZE) return std::nullopt;
    text.remove_prefix(static_cast<std::size_t>(stop - text.data()));
    return value;
}

// "bytes 0-99/1234".
struct ContentRange {
    uint64_t first, last, size;
};
std::optional<ContentRange> parse_content_range(std::string_view text) {
    const auto skip = [&](std::string_view word) {
        const bool there = text.starts_with(word);
        if (there) text.remove_prefix(word.size());
        return there;
    };
    ContentRange range{};
    for (const auto& [before, value] : {std::pair{"bytes ", &range.first}, {"-", &range.last}, {"/", &range.size}}) {
        const auto number = skip(before) ? take_number(text) : std::nullopt;
        if (!number) return std::nullopt;
        *value = *number;
    }
    const bool sound = text.empty() && range.first <= range.last && range.last < range.size;
    return sound ? std::optional(range) : std::nullopt;
}

}  // namespace

// What a server answers: its headers, and the body into a part.
struct UrlFile::Answer {
    std::string tag, date;
    std::optional<ContentRange> range;
    long status = 0;
    std::vector<uint8_t>* body = nullptr;
    std::size_t most = 0;  // bytes that the body may have in all
    const Curl* curl = nullptr;

    static std::size_t take_header(const char* data, std::size_t, std::size_t count, void* self) {
        static_cast<Answer*>(self)->take_header({data, count});
        return count;
    }

    void take_header(std::string_view line) {
        if (line.starts_with("HTTP/")) tag = date = "", range.reset();  // of another answer, after a redirection
        const std::size_t colon = line.find(':');
        if (colon == std::string_view::npos || line.size() > MOST_HEADER) return;
        const std::string name = lower_case(line.substr(0, colon));
        std::string_view value = line.substr(colon + 1);
        value.remove_prefix(std::min(value.find_first_not_of(" \t"), value.size()));
        value = value.substr(0, value.find_last_not_of(" \t\r\n") + 1);
        if (name == "etag") tag = value;
        if (name == "last-modified") date = value;
        if (name == "content-range") range = parse_content_range(value);
    }

    static std::size_t take_body(const char* data, std::size_t, std::size_t count, void* self);

    // A weak tag does not stand for every byte.
    std::string version() const { return tag.empty() || tag.starts_with("W/") ? date : tag; }
};

class UrlFile::Curl {
  public:
    explicit Curl(const std::string& url) : api_(Api::instance()), handle_(api_.init()) {
        if (handle_ == nullptr) throw IoError("no connection can be made");
        set(URL, url.c_str());
        set(PROTOCOLS, "http,https");
        set(REDIRECTION_PROTOCOLS, "http,https");
        set(USER_AGENT, (std::string("orvel/") + ovl_version()).c_str());
        set(FOLLOW, 1L);
        set(REDIRECTIONS, MOST_REDIRECTIONS);
        set(NO_SIGNAL, 1L);
        set(LEAST_BYTES_PER_S, 1L);
        set(WRITE_FUNCTION, &Answer::take_body);
        set(HEADER_FUNCTION,
            static_cast<std::size_t (*)(const char*, std::size_t, std::size_t, void*)>(&Answer::take_header));
    }
    Curl(const Curl&) = delete;
    Curl& operator=(const Curl&) = delete;
    ~Curl() { api_.cleanup(handle_); }

    // Asks for some bytes. Returns what went wrong with the connection, or "".
    std::string ask(uint64_t begin, uint64_t end, const std::string& version, const UrlPatience& patience,
                    Answer& answer) {
        answer.curl = this;
        set(RANGE, format("%llu-%llu", static_cast<unsigned long long>(begin), static_cast<unsigned long long>(end - 1))
                       .c_str());
        const std::unique_ptr<void, void (*)(void*)> headers(
            version.empty() ? nullptr : api_.list_append(nullptr, ("If-Range: " + version).c_str()), api_.list_free);
        set(HEADERS, headers.get());
        set(WRITE_DATA, &answer);
        set(HEADER_DATA, &answer);
        set(LEAST_FOR_S, static_cast<long>(patience.stall_s));
        set(CONNECT_TIMEOUT_MS, 1000L * patience.stall_s);
        set(TIMEOUT_MS, 1000L * patience.most_s);
        const int result = api_.perform(handle_);
        answer.status = status();
        set(HEADERS, static_cast<void*>(nullptr));
        return result == 0 ? "" : api_.text_of(result);
    }

    long status() const {
        long status = 0;
        api_.info(handle_, RESPONSE_CODE, &status);
        return status;
    }

  private:
    template <class Value>
    void set(Setting setting, Value value) {
        if (api_.set(handle_, setting, value) != 0) throw IoError(format("libcurl knows no option %d", setting));
    }

    const Api& api_;
    void* handle_;
};

// Of a page that says what went wrong, and of a whole file where a part was asked for, nothing is wanted.
std::size_t UrlFile::Answer::take_body(const char* data, std::size_t, std::size_t count, void* self) {
    Answer& answer = *static_cast<Answer*>(self);
    if (answer.curl->status() != PARTIAL) return 0;
    if (count > answer.most - answer.body->size()) return 0;
    answer.body->insert(answer.body->end(), data, data + count);
    return count;
}

UrlFile::UrlFile(const std::string& url, const UrlPatience& patience)
    : url_(url), patience_(patience), curl_(std::make_unique<Curl>(url)) {
    parts_.push_front(fetch(0, FIRST_BYTES));
}

UrlFile::~UrlFile() = default;

void UrlFile::refuse(const std::string& reason) const {
    throw IoError("cannot read '" + url_ + "': " + reason);
}

// What an answer says that is not about the connection.
void UrlFile::check(const Answer& answer, uint64_t asked, bool first) {
    const bool changed = !first && !version_.empty() && answer.version() != version_;
    if (answer.status == OK) {
        refuse(changed ? "it has changed meanwhile" : "its server does not serve parts of files (ranges)");
    }
    if (answer.status == NO_SUCH_RANGE) refuse(first ? "it is empty" : "it has become shorter meanwhile");
    if (answer.status == CHANGED) refuse("it has changed meanwhile");
    if (answer.status != PARTIAL) refuse(format("its server says %ld", answer.status));
    if (!answer.range) refuse("its server does not say which part of the file it sends");
    if (answer.range->first != asked) refuse("its server sends another part of the file than was asked for");
    if (!first && (changed || answer.range->size != size_)) refuse("it has changed meanwhile");
    size_ = answer.range->size;
    version_ = answer.version();
}

// Adds to a part up to so many bytes. False, with the reason, when that may be another time.
bool UrlFile::fetch_rest(Part& part, uint64_t count, std::string& problem) {
    const bool first = size_ == 0;
    const uint64_t begin = part.begin + part.bytes.size();
    Answer answer;
    answer.body = &part.bytes;
    answer.most = static_cast<std::size_t>(count);
    const std::size_t before = part.bytes.size();
    problem = curl_->ask(begin, part.begin + count, version_, patience_, answer);
    if (answer.status == 0) return false;
    if (may_pass(answer.status)) {
        problem = format("its server says %ld", answer.status);
        return false;
    }
    try {
        check(answer, begin, first);
    } catch (...) {
        part.bytes.resize(before);
        throw;
    }
    if (part.bytes.size() - before > answer.range->last - answer.range->first + 1) {
        refuse("its server sends more than it says");
    }
    const uint64_t end = std::min(size_, part.begin + count);
    if (part.begin + part.bytes.size() >= end) return true;
    if (problem.empty()) problem = "its server sends less than it says";
    return false;
}

UrlFile::Part UrlFile::fetch(uint64_t begin, uint64_t count) {
    Part part{begin, {}};
    part.bytes.reserve(static_cast<std::size_t>(count));
    std::string problem;
    double wait_s = patience_.first_wait_s;
    for (int32_t attempt = 1; !fetch_rest(part, count, problem); attempt++) {
        if (attempt >= patience_.attempts) {
            throw Unreachable(format("cannot read '%s': %s (%d attempts)", url_.c_str(), problem.c_str(), attempt));
        }
        nap(wait_s);
        wait_s *= 2;
    }
    return part;
}

const UrlFile::Part& UrlFile::part_at(uint64_t offset) {
    const auto holds = [&](const Part& part) {
        return offset >= part.begin && offset < part.begin + part.bytes.size();
    };
    const auto held = std::ranges::find_if(parts_, holds);
    if (held != parts_.end()) {
        parts_.splice(parts_.begin(), parts_, held);
        return parts_.front();
    }
    const Part& latest = parts_.front();
    const bool follows = latest.begin + latest.bytes.size() == offset;
    const uint64_t count = follows ? std::min<uint64_t>(2 * latest.bytes.size(), MOST_BYTES) : FIRST_BYTES;
    parts_.push_front(fetch(offset, std::min(count, size_ - offset)));
    if (parts_.size() > MOST_PARTS) parts_.pop_back();
    return parts_.front();
}

std::size_t UrlFile::read_at(uint64_t offset, std::span<uint8_t> out) {
    const std::lock_guard guard(lock_);
    std::size_t done = 0;
    while (done < out.size() && offset + done < size_) {
        const Part& part = part_at(offset + done);
        const auto from = std::span(part.bytes).subspan(static_cast<std::size_t>(offset + done - part.begin));
        const std::size_t count = std::min(from.size(), out.size() - done);
        std::copy_n(from.begin(), count, out.begin() + static_cast<std::ptrdiff_t>(done));
        done += count;
    }
    return done;
}

bool is_url(const std::string& path) {
    return path.starts_with("http://") || path.starts_with("https://");
}
