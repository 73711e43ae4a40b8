#include "archive/decode_shard.h"

#include <cstdint>
#include <memory>
#include <new>
#include <utility>

#include "archive/shard_lines.h"
#include "base/console.h"
#include "base/error.h"
#include "recordings/open_recording.h"

namespace {

// Milliseconds of work, and one for what is not there.
uint64_t weight_of(const RecordingSize& size, const DecodingOptions& decoding) {
    return 1 + static_cast<uint64_t>(1000 * expected_work_s(size, decoding));
}

class ShardDecoder {
  public:
    using Write = std::function<bool(const std::string& line)>;

    ShardDecoder(const ShardJob& job, const Division& division, const Write& write)
        : job_(job), division_(division), write_(write) {}

    // False when nobody takes any more.
    bool decode(std::size_t recording) {
        const std::string& file = job_.files[recording];
        try {
            return decode_file(recording, file);
        } catch (const IoError& error) {
            fail(error.what());
            return write_(shard_line(RecordingHead{.recording = recording, .file = file, .problem = error.what()}));
        } catch (const std::bad_alloc&) {
            fail("cannot decode '" + file + "': memory is short");  // elsewhere there may be enough
            return true;
        }
    }

    bool failed() const { return failed_; }

  private:
    bool decode_file(std::size_t recording, const std::string& file) {
        DecodingOptions decoding = job_.decoding;
        const std::unique_ptr<Recording> opened = open_recording(file, job_.reading(file));
        decoding.search.iq = opened->iq();
        const RecordingHead head{.recording = recording,
                                 .file = file,
                                 .problem = "",
                                 .blocks = count_blocks(*opened, decoding),
                                 .coherent = decoding.search.coherent,
                                 .takes = opened->takes()};
        const BlockRange own = division_.blocks(job_.shard.number, recording, head.blocks);
        if (own.first == own.end) return true;
        bool wanted = write_(shard_line(head));
        bool told = false;
        decode_blocks(*opened, decoding, own.first, own.end, [&](DecodedBlock block, std::size_t k) {
            if (!block.problem.empty() && !std::exchange(told, true)) fail(block.problem);
            wanted = wanted && write_(shard_line(BlockFinds{recording, k, std::move(block)}));
            return wanted;
        });
        return wanted;
    }

    void fail(const std::string& problem) {
        print_error(problem);
        failed_ = true;
    }

    const ShardJob& job_;
    const Division& division_;
    const Write& write_;
    bool failed_ = false;
};

}  // namespace

bool decode_shard(const ShardJob& job, const std::function<bool(const std::string& line)>& write) {
    std::vector<uint64_t> bytes;
    std::vector<uint64_t> weights;
    bytes.reserve(job.files.size());
    weights.reserve(job.files.size());
    for (const std::string& file : job.files) {
        const RecordingSize size = size_in_archive(file, job.reading);
        bytes.push_back(size.bytes);
        weights.push_back(weight_of(size, job.decoding));
    }
    const Division division(weights, job.shard.count);
    ShardDecoder decoder(job, division, write);
    if (!write(shard_line(ShardHead{job.shard, fingerprint(job.files, bytes, job.options), job.files.size()}))) {
        return false;
    }
    for (std::size_t k = 0; k < job.files.size(); k++) {
        if (division.reaches(job.shard.number, k) && !decoder.decode(k)) return false;
    }
    return write(shard_line(ShardEnd{})) && !decoder.failed();
}
