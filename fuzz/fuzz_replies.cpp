// Datagrams to a station: any bytes are a request or none.
#include "input.h"
#include "outputs/udp_request.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, std::size_t size) {
    Input input(data, size);
    const std::string id = input.text(20);
    const std::string bytes = input.rest();
    if (asks_for_replay(bytes, id)) expect(bytes.size() >= 16 + id.size() && bytes.substr(16, id.size()) == id);
    return 0;
}
