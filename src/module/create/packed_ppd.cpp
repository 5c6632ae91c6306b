#include "create/packed_ppd.h"

#include <zlib.h>

#include <array>
#include <cstring>

namespace ovsvc {

namespace {

constexpr std::uint64_t kUnpackedFloorBytes = 256 * 1024;
constexpr std::uint64_t kUnpackedBytesPerPackedByte = 64;

// Ends the inflater on every path.
class Inflater {
  public:
    Inflater() = default;
    Inflater(const Inflater&) = delete;
    Inflater& operator=(const Inflater&) = delete;
    ~Inflater() {
        if (ready_) {
            inflateEnd(&stream_);
        }
    }
    int Init() {
        const int rc = inflateInit(&stream_);
        ready_ = rc == Z_OK;
        return rc;
    }
    z_stream& stream() { return stream_; }

  private:
    z_stream stream_{};
    bool ready_ = false;
};

PpdUnpackResult ZlibFailure(int code, const z_stream& stream, PpdUnpackResult result) {
    result.status = PpdUnpackStatus::kZlibError;
    result.zlibCode = code;
    result.message = stream.msg != nullptr ? stream.msg : zError(code);
    if (code == Z_NEED_DICT) {
        result.message = "a preset dictionary is needed";
    }
    return result;
}

}  // namespace

std::uint64_t MaxUnpackedPpdBytes(std::size_t size) {
    return kUnpackedFloorBytes + kUnpackedBytesPerPackedByte * static_cast<std::uint64_t>(size);
}

PackedPpdState CheckPackedPpd(const void* data, std::size_t size) {
    if (data == nullptr || size < kPackedPpdSignatureBytes) {
        return PackedPpdState::kMissing;
    }
    if (size == kPackedPpdCutOffBytes) {
        return PackedPpdState::kCutOff;
    }
    if (size > kPackedPpdCutOffBytes) {
        return PackedPpdState::kTooBig;
    }
    if (std::memcmp(data, kPackedPpdSignature.data(), kPackedPpdSignatureBytes) != 0) {
        return PackedPpdState::kWrongSignature;
    }
    return PackedPpdState::kUsable;
}

PpdUnpackResult UnpackPpdStreams(std::span<const std::byte> streams, const PpdSink& sink) {
    PpdUnpackResult result;
    const std::uint64_t limit = MaxUnpackedPpdBytes(streams.size());
    Inflater inflater;
    z_stream& zs = inflater.stream();
    if (const int rc = inflater.Init(); rc != Z_OK) {
        return ZlibFailure(rc, zs, std::move(result));
    }
    // zlib reads through a non-const pointer but never writes the input.
    zs.next_in = const_cast<Bytef*>(reinterpret_cast<const Bytef*>(streams.data()));
    std::size_t unread = streams.size();
    std::array<std::byte, kPpdUnpackBufferBytes> buffer;
    for (;;) {
        // zlib counts in 32 bits; hand it the input in pieces it can count.
        if (zs.avail_in == 0 && unread != 0) {
            zs.avail_in = static_cast<uInt>(std::min<std::size_t>(unread, 1u << 30));
            unread -= zs.avail_in;
        }
        zs.next_out = reinterpret_cast<Bytef*>(buffer.data());
        zs.avail_out = static_cast<uInt>(buffer.size());
        const uInt before = zs.avail_in;
        const int rc = inflate(&zs, Z_SYNC_FLUSH);
        if (rc != Z_OK && rc != Z_STREAM_END && rc != Z_BUF_ERROR) {
            return ZlibFailure(rc, zs, std::move(result));
        }
        const std::size_t produced = buffer.size() - zs.avail_out;
        if (result.bytes + produced > limit) {
            result.status = PpdUnpackStatus::kTooBig;
            result.message = "the text would exceed " + std::to_string(limit) + " bytes";
            return result;
        }
        if (produced != 0 && !sink(std::span<const std::byte>(buffer.data(), produced))) {
            result.status = PpdUnpackStatus::kWriteFailed;
            result.message = "the text could not be written";
            return result;
        }
        result.bytes += produced;
        const bool inputLeft = zs.avail_in != 0 || unread != 0;
        if (rc == Z_STREAM_END) {
            if (!inputLeft) {
                return result;
            }
            inflateReset(&zs);  // the next stream follows
        } else if ((zs.avail_out != 0 && !inputLeft) || (produced == 0 && zs.avail_in == before)) {
            // The buffer was not filled and there is nothing more to read
            // (or no progress at all): the last stream has no end.
            result.status = PpdUnpackStatus::kTruncated;
            result.zlibCode = Z_BUF_ERROR;
            result.message = "the packed data ends inside a stream";
            return result;
        }
    }
}

std::vector<std::byte> PackPpd(const std::vector<std::string_view>& texts) {
    std::vector<std::byte> out(kPackedPpdSignature.size());
    std::memcpy(out.data(), kPackedPpdSignature.data(), kPackedPpdSignature.size());
    for (const std::string_view text : texts) {
        uLongf packed = compressBound(static_cast<uLong>(text.size()));
        const std::size_t at = out.size();
        out.resize(at + packed);
        if (compress2(reinterpret_cast<Bytef*>(out.data() + at), &packed,
                      reinterpret_cast<const Bytef*>(text.data()), static_cast<uLong>(text.size()),
                      Z_BEST_COMPRESSION) != Z_OK) {
            return {};
        }
        out.resize(at + packed);
    }
    return out;
}

}  // namespace ovsvc
