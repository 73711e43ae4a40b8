#include "recordings/spool.h"

#include <string>

#include "base/error.h"

namespace {

template <class Call>
void do_or_refuse(Call call) {
    try {
        call();
    } catch (const IoError& error) {
        throw IoError("cannot keep what comes in '" + temporary_directory() + "': " + error.what());
    }
}

}  // namespace

Spool::Spool() {
    do_or_refuse([this] { file_.emplace(DiskFile::temporary()); });
}

void Spool::append(std::span<const uint8_t> bytes) {
    do_or_refuse([&] { file_->append(bytes); });
}
