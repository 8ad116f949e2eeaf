#include "rebuild/block_writer.h"

#include "support/file_stream.h"
#include "support/sys_call.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <pthread.h>
#include <system_error>
#include <utility>

bool BlockWriter::start(FILE* out, bool writeBack)
{
    finish();
    writeBack_ = writeBack;
    written_ = writtenBack_ = 0;
    block_ = static_cast<char*>(std::malloc(kBlockSize));
    spare_ = static_cast<char*>(std::malloc(kBlockSize));
    if (block_ != nullptr && spare_ != nullptr) {
        out_ = out;
        stop_ = false;
        error_ = 0;
        try {
            thread_ = std::thread(&BlockWriter::run, this);
            pthread_setname_np(thread_.native_handle(), "quenby-write"); // for ps and perf
            return true;
        } catch (const std::system_error&) {
        }
    }
    std::free(std::exchange(block_, nullptr));
    std::free(std::exchange(spare_, nullptr));
    errno = ENOMEM;
    return false;
}

bool BlockWriter::put(std::string_view text)
{
    while (text.size() > kBlockSize - used_) {
        const size_t part = kBlockSize - used_;
        std::memcpy(block_ + used_, text.data(), part);
        used_ += part;
        text.remove_prefix(part);
        if (!handOff())
            return false;
    }
    std::memcpy(block_ + used_, text.data(), text.size());
    used_ += text.size();
    return true;
}

// Gives the full block to the thread once it has written the one before.
bool BlockWriter::handOff()
{
    std::unique_lock lock(mutex_);
    changed_.wait(lock, [this] { return pending_ == 0; });
    if (error_ != 0) {
        used_ = 0;
        errno = error_;
        return false;
    }
    std::swap(block_, spare_);
    pending_ = used_;
    used_ = 0;
    changed_.notify_all();
    return true;
}

void BlockWriter::run()
{
    std::unique_lock lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return pending_ != 0 || stop_; });
        if (pending_ == 0)
            return;
        const size_t bytes = pending_;
        lock.unlock();
        const bool written = sysFwrite(spare_, bytes, out_) == bytes;
        const int err = errno;
        if (written)
            startWriteBack(bytes);
        lock.lock();
        if (!written && error_ == 0)
            error_ = err != 0 ? err : EIO;
        pending_ = 0;
        changed_.notify_all();
    }
}

// Starts the write-back of what the stream has passed on, every 8 MiB: a
// hint, whose failure (a pipe, say) changes nothing.
void BlockWriter::startWriteBack(size_t bytes)
{
    constexpr uint64_t kStep = 8 << 20;
    written_ += bytes;
    // The stream may still hold up to its buffer's worth.
    const uint64_t passed = written_ > SEQUENTIAL_BUFFER_SIZE ? written_ - SEQUENTIAL_BUFFER_SIZE : 0;
    if (!writeBack_ || passed < writtenBack_ + kStep)
        return;
    sync_file_range(fileno(out_), static_cast<off_t>(writtenBack_), static_cast<off_t>(passed - writtenBack_),
                    SYNC_FILE_RANGE_WRITE);
    writtenBack_ = passed;
}

int BlockWriter::finish()
{
    if (!thread_.joinable())
        return 0;
    if (used_ > 0)
        handOff();
    {
        std::lock_guard lock(mutex_);
        stop_ = true;
        changed_.notify_all();
    }
    thread_.join();
    std::free(std::exchange(block_, nullptr));
    std::free(std::exchange(spare_, nullptr));
    used_ = 0;
    if (error_ == 0)
        return 0;
    errno = error_;
    return -1;
}
