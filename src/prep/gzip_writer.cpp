#include "prep/gzip_writer.h"

#include <cstdint>
#include <new>
#include <stdexcept>

namespace {

// The base name as Python's header has it: Latin-1 when every character of
// the UTF-8 name fits, without a final ".gz"; empty otherwise.
std::string header_name(std::string const& path) {
    auto const slash = path.rfind('/');
    std::string const base = slash == std::string::npos ? path : path.substr(slash + 1);
    std::string latin1;
    for (std::size_t i = 0; i < base.size();) {
        auto const b = static_cast<unsigned char>(base[i]);
        if (b < 0x80) {
            latin1 += static_cast<char>(b);
            ++i;
        } else if ((b == 0xc2 || b == 0xc3) && i + 1 < base.size() &&
                   (static_cast<unsigned char>(base[i + 1]) & 0xc0) == 0x80) {
            latin1 += static_cast<char>(((b & 0x1f) << 6) | (static_cast<unsigned char>(base[i + 1]) & 0x3f));
            i += 2;
        } else {
            return "";
        }
    }
    if (latin1.size() >= 3 && latin1.compare(latin1.size() - 3, 3, ".gz") == 0) latin1.resize(latin1.size() - 3);
    return latin1;
}

void put_le32(std::string& out, std::uint32_t v) {
    for (int i = 0; i < 4; ++i) out += static_cast<char>((v >> (8 * i)) & 0xff);
}

constexpr std::size_t block_size = 1 << 18;
constexpr std::size_t max_waiting = 2;

}  // namespace

python_gzip_writer::python_gzip_writer(output_file& file, std::string const& path) : file_(file) {
    if (deflateInit2(&stream_, 6, Z_DEFLATED, -MAX_WBITS, 8, Z_DEFAULT_STRATEGY) != Z_OK) throw std::bad_alloc();
    crc_ = crc32(0L, Z_NULL, 0);
    std::string const name = header_name(path);
    std::string header = "\x1f\x8b\x08";
    header += static_cast<char>(name.empty() ? 0 : 0x08);  // FNAME
    put_le32(header, 0);                                     // mtime
    header += '\0';                                          // extra flags of level 6
    header += '\xff';                                        // OS unknown
    if (!name.empty()) {
        header += name;
        header += '\0';
    }
    file_.write(header);
    out_.resize(1 << 16);
    block_.reserve(block_size);
    worker_ = std::thread([this] { compress_blocks(); });
}

python_gzip_writer::~python_gzip_writer() {
    stop();
    deflateEnd(&stream_);
}

void python_gzip_writer::stop() {
    if (!worker_.joinable()) return;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        closing_ = true;
    }
    changed_.notify_all();
    worker_.join();
}

void python_gzip_writer::write(char const* text, std::size_t size) {
    block_.append(text, size);
    if (block_.size() >= block_size) hand_over();
}

void python_gzip_writer::hand_over() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait(lock, [this] { return queue_.size() < max_waiting || failure_; });
    if (failure_) {  // reported by finish()
        block_.clear();
        return;
    }
    queue_.push_back(std::move(block_));
    if (!spare_.empty()) {
        block_ = std::move(spare_.front());
        spare_.pop_front();
    } else {
        block_ = std::string();
        block_.reserve(block_size);
    }
    block_.clear();
    lock.unlock();
    changed_.notify_all();
}

void python_gzip_writer::compress_blocks() {
    std::unique_lock<std::mutex> lock(mutex_);
    for (;;) {
        changed_.wait(lock, [this] { return !queue_.empty() || closing_; });
        if (queue_.empty()) return;
        std::string text = std::move(queue_.front());
        queue_.pop_front();
        lock.unlock();
        changed_.notify_all();
        try {
            if (!failure_) deflate_into_file(text.data(), text.size(), Z_NO_FLUSH);
        } catch (...) {
            lock.lock();
            failure_ = std::current_exception();
            lock.unlock();
        }
        text.clear();
        lock.lock();
        spare_.push_back(std::move(text));
        changed_.notify_all();
    }
}

void python_gzip_writer::deflate_into_file(char const* text, std::size_t size, int flush) {
    if (size > 0) crc_ = crc32_z(crc_, reinterpret_cast<Bytef const*>(text), size);  // a null text would reset it
    size_ += size;
    stream_.next_in = reinterpret_cast<Bytef*>(const_cast<char*>(text));
    for (;;) {
        uInt const piece = static_cast<uInt>(size < (1u << 30) ? size : (1u << 30));
        stream_.avail_in = piece;
        size -= piece;
        int const step_flush = size == 0 ? flush : Z_NO_FLUSH;
        for (;;) {
            stream_.next_out = reinterpret_cast<Bytef*>(&out_[0]);
            stream_.avail_out = static_cast<uInt>(out_.size());
            int const status = deflate(&stream_, step_flush);
            if (status == Z_STREAM_ERROR) throw std::runtime_error("gzip: deflate failed");
            std::size_t const produced = out_.size() - stream_.avail_out;
            if (produced > 0) file_.write(out_.data(), produced);
            if (step_flush == Z_FINISH ? status == Z_STREAM_END : stream_.avail_out != 0) break;
        }
        if (size == 0) return;
    }
}

void python_gzip_writer::finish() {
    if (finished_) return;
    finished_ = true;
    if (!block_.empty()) hand_over();
    stop();
    if (failure_) std::rethrow_exception(failure_);
    deflate_into_file(nullptr, 0, Z_FINISH);
    std::string trailer;
    put_le32(trailer, static_cast<std::uint32_t>(crc_));
    put_le32(trailer, static_cast<std::uint32_t>(size_ & 0xffffffffu));
    file_.write(trailer);
}
