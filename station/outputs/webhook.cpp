// POST to a web server. Spots have arrived when it answers 2xx; with anything else they are sent again, later and
// later, or when it asks for it by Retry-After. None is ever given up: what a server refuses, a keeper can put right.
#include <curl/curl.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <utility>

#include "base/error.h"
#include "base/interrupts.h"
#include "base/text.h"
#include "outputs/types.h"

namespace {

constexpr std::size_t MOST_ANSWER_BYTES = 65536;
constexpr double LONGEST_WAIT_S = 3600;  // that a server may ask for
constexpr long TOO_LARGE = 413;

void require_library() {
    static std::once_flag once;
    std::call_once(once, [] { curl_global_init(CURL_GLOBAL_DEFAULT); });
}

// A token in the open would be anybody's.
bool is_safe(const std::string& url) {
    if (url.starts_with("https://")) return true;
    for (const std::string_view here : {"http://127.0.0.1", "http://[::1]", "http://localhost"}) {
        if (url.starts_with(here) &&
            (url.size() == here.size() || url[here.size()] == ':' || url[here.size()] == '/')) {
            return true;
        }
    }
    return false;
}

class WebhookOutput : public Output {
  public:
    WebhookOutput(const Values& values, Keeper keeper)
        : url_(values.text("url")),
          array_(values.text("format", "array") == "array"),
          at_once_(static_cast<std::size_t>(values.number("most_spots", 100))),
          keeper_(std::move(keeper)) {
        require_library();
        const std::string format_name = values.text("format", "array");
        if (format_name != "array" && format_name != "lines") {
            throw UsageError("webhook: format '" + format_name + "' is neither array nor lines");
        }
        if (!url_.starts_with("https://") && !url_.starts_with("http://")) {
            throw UsageError("webhook: '" + url_ + "' begins with neither https:// nor http://");
        }
        if (values.has("token") && !is_safe(url_)) throw UsageError("webhook: a token needs https://");
        curl_.reset(curl_easy_init());
        if (!curl_) throw UsageError("webhook: no connection can be made");
        add_header(array_ ? "Content-Type: application/json" : "Content-Type: application/x-ndjson");
        add_header("Expect:");
        if (values.has("token")) add_header("Authorization: Bearer " + values.text("token"));
        set(CURLOPT_URL, url_.c_str());
        set(CURLOPT_PROTOCOLS_STR, "http,https");
        set(CURLOPT_NOSIGNAL, 1L);
        set(CURLOPT_POST, 1L);
        set(CURLOPT_HTTPHEADER, headers_.get());
        set(CURLOPT_USERAGENT, (std::string("orvel/") + ovl_version()).c_str());
        set(CURLOPT_TIMEOUT_MS, static_cast<long>(1000 * values.number("seconds", 15)));
        set(CURLOPT_WRITEFUNCTION, &WebhookOutput::take_answer);
        set(CURLOPT_WRITEDATA, this);
        if (values.has("ca_file")) set(CURLOPT_CAINFO, values.text("ca_file").c_str());
    }

    std::size_t send(std::span<const StoredSpot> spots) override {
        if (monotonic_now() < wait_until_) return 0;
        spots = spots.first(std::min(spots.size(), at_once_));
        const std::string body = body_of(spots);
        answer_bytes_ = 0;
        set(CURLOPT_POSTFIELDSIZE_LARGE, static_cast<curl_off_t>(body.size()));
        set(CURLOPT_POSTFIELDS, body.c_str());
        const CURLcode result = curl_easy_perform(curl_.get());
        long status = 0;
        curl_easy_getinfo(curl_.get(), CURLINFO_RESPONSE_CODE, &status);
        // An answer that is too long is cut off, but its status counts.
        if (result != CURLE_OK && !(result == CURLE_WRITE_ERROR && status != 0)) fail(curl_easy_strerror(result));
        if (status < 200 || status > 299) refuse(status);
        return spots.size();
    }

    void check() override {
        set(CURLOPT_CONNECT_ONLY, 1L);
        const CURLcode result = curl_easy_perform(curl_.get());
        set(CURLOPT_CONNECT_ONLY, 0L);
        if (result != CURLE_OK) fail(curl_easy_strerror(result));
    }

  private:
    struct Cleanup {
        void operator()(CURL* curl) const noexcept { curl_easy_cleanup(curl); }
    };
    struct FreeList {
        void operator()(curl_slist* list) const noexcept { curl_slist_free_all(list); }
    };

    template <class Value>
    void set(CURLoption option, Value value) {
        if (curl_easy_setopt(curl_.get(), option, value) != CURLE_OK) {
            throw UsageError("webhook: option " + std::to_string(option) + " is not known to libcurl");
        }
    }

    void add_header(const std::string& line) {
        curl_slist* const longer = curl_slist_append(headers_.get(), line.c_str());
        if (longer == nullptr) throw UsageError("webhook: memory is short");
        [[maybe_unused]] curl_slist* const before = headers_.release();
        headers_.reset(longer);
    }

    std::string body_of(std::span<const StoredSpot> spots) const {
        std::string body;
        for (const StoredSpot& stored : spots) {
            std::string line = stored_line(stored, keeper_);
            if (array_) {
                line.pop_back();
                body += body.empty() ? "[" : ",";
            }
            body += line;
        }
        return array_ ? body + "]" : body;
    }

    static std::size_t take_answer(const char*, std::size_t, std::size_t bytes, void* self) {
        std::size_t& sum = static_cast<WebhookOutput*>(self)->answer_bytes_;
        sum += bytes;
        return sum > MOST_ANSWER_BYTES ? 0 : bytes;
    }

    // Without what may be secret in the address.
    [[noreturn]] void fail(const std::string& reason) const {
        const std::size_t begin = url_.find("//") + 2;
        const std::string host = url_.substr(begin, url_.find_first_of("/?#", begin) - begin);
        const std::size_t user = host.rfind('@');
        throw IoError("'" + (user == std::string::npos ? host : host.substr(user + 1)) + "': " + reason);
    }

    [[noreturn]] void refuse(long status) {
        curl_off_t wait_s = 0;
        curl_easy_getinfo(curl_.get(), CURLINFO_RETRY_AFTER, &wait_s);
        wait_until_ = monotonic_now() + std::clamp(static_cast<double>(wait_s), 0.0, LONGEST_WAIT_S);
        if (status == TOO_LARGE) at_once_ = std::max<std::size_t>(at_once_ / 2, 1);
        fail(format("it answers %ld", status));
    }

    std::string url_;
    bool array_;
    std::size_t at_once_;
    Keeper keeper_;
    std::unique_ptr<curl_slist, FreeList> headers_;
    std::unique_ptr<CURL, Cleanup> curl_;
    std::size_t answer_bytes_ = 0;
    double wait_until_ = 0;
};

}  // namespace

std::unique_ptr<Output> make_webhook_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<WebhookOutput>(values, keeper);
}
