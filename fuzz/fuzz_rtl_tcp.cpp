// What an rtl_tcp server sends, and the text that names it: any octets are the same samples however they are cut, and
// any text is an address whose commands are whole, or is refused.
#include <cmath>
#include <string>
#include <vector>

#include "base/error.h"
#include "input.h"
#include "sources/rtl_tcp.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    const std::span bytes(data, size);
    RtlTcpStream whole;
    std::vector<float> samples;
    whole.push(bytes, samples);
    expect(samples.size() % 2 == 0 && samples.size() <= size);
    for (const float sample : samples) expect(std::fabs(sample) < 1);

    RtlTcpStream cut;
    std::vector<float> again;
    for (std::size_t at = 0, length = 1; at < size; at += length) {
        length = std::min<std::size_t>(1 + data[at] % 16, size - at);
        cut.push(bytes.subspan(at, length), again);
    }
    expect(samples == again && whole.tuner() == cut.tuner());

    try {
        const RtlTcpAddress address = parse_rtl_tcp(std::string(bytes.begin(), bytes.end()));
        expect(!address.host.empty() && address.tuner.rate >= 8000 && address.tuner.rate <= 3200000);
        expect(rtl_tcp_commands(address).size() % 5 == 0);
    } catch (const UsageError&) {
        return 0;
    }
    return 0;
}
