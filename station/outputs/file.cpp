#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <string>

#include "base/error.h"
#include "outputs/types.h"

namespace {

namespace fs = std::filesystem;

constexpr double MEGABYTE = 1e6;

class FileOutput : public Output {
  public:
    FileOutput(const Values& values, Keeper keeper)
        : path_(values.text("path")),
          most_bytes_(values.number("most_megabytes", 100) * MEGABYTE),
          keep_files_(static_cast<int>(values.number("keep_files", 10))),
          keeper_(std::move(keeper)) {}
    FileOutput(const FileOutput&) = delete;
    FileOutput& operator=(const FileOutput&) = delete;
    ~FileOutput() override { close_file(); }

    std::size_t send(std::span<const StoredSpot> spots) override {
        std::string lines;
        for (const StoredSpot& stored : spots) lines += stored_line(stored, keeper_);
        rotate(lines.size());
        open_file();
        write_all(lines);
        return spots.size();
    }

    void check() override { open_file(); }

  private:
    [[noreturn]] void fail() const { throw IoError("cannot write '" + path_ + "': " + std::strerror(errno)); }

    void open_file() {
        if (file_ >= 0) return;
        // A pipe that nobody reads is an error, not a wait.
        file_ = open(path_.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | O_NONBLOCK, 0644);
        if (file_ < 0) fail();
        if (fcntl(file_, F_SETFL, O_APPEND) != 0) fail();
        if (ends_within_a_line()) write_all("\n");
    }

    // A machine that went down has cut off the last line; its spot comes again.
    bool ends_within_a_line() const {
        struct stat state {};
        if (fstat(file_, &state) != 0 || !S_ISREG(state.st_mode) || state.st_size == 0) return false;
        std::ifstream file(path_, std::ios::binary);
        file.seekg(-1, std::ios::end);
        return file.good() && file.get() != '\n';
    }

    void close_file() {
        if (file_ >= 0) close(file_);
        file_ = -1;
    }

    // What was written of lines that do not fit is taken back: they come again.
    void write_all(const std::string& lines) {
        const off_t before = lseek(file_, 0, SEEK_END);
        for (std::size_t done = 0; done < lines.size();) {
            const ssize_t got = write(file_, lines.data() + done, lines.size() - done);
            if (got < 0 && errno == EINTR) continue;
            if (got <= 0) {
                const int reason = errno;
                [[maybe_unused]] const int cut = ftruncate(file_, before);
                errno = reason;
                fail();
            }
            done += static_cast<std::size_t>(got);
        }
        if (fdatasync(file_) != 0 && errno != EINVAL) fail();  // a pipe has no disk
    }

    void rotate(std::size_t coming) {
        std::error_code error;
        const auto size = fs::file_size(path_, error);
        if (error || size == 0 || static_cast<double>(size + coming) <= most_bytes_) return;
        close_file();
        const auto numbered = [&](int k) { return path_ + "." + std::to_string(k); };
        fs::remove(numbered(keep_files_ - 1), error);
        for (int k = keep_files_ - 2; k >= 1; k--) {
            if (fs::exists(numbered(k), error)) fs::rename(numbered(k), numbered(k + 1), error);
        }
        if (keep_files_ > 1) {
            fs::rename(path_, numbered(1), error);
        } else {
            fs::remove(path_, error);
        }
        if (error) throw IoError("cannot rename '" + path_ + "': " + error.message());
    }

    std::string path_;
    double most_bytes_;
    int keep_files_;
    Keeper keeper_;
    int file_ = -1;
};

}  // namespace

std::unique_ptr<Output> make_file_output(const Values& values, const Keeper& keeper) {
    return std::make_unique<FileOutput>(values, keeper);
}
