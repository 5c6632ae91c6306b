// The packed printer description (PPD) a PostScript client printer sends as
// its create request's data: the signature "OVPPD" followed by one or more
// concatenated zlib streams whose outputs, one after the other, are the PPD
// text.
//
// This file depends on zlib and the standard library only, so the tools
// (ovasctl ppd pack / unpack) compile it too.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace ovsvc {

inline constexpr std::string_view kPackedPpdSignature = "OVPPD";
inline constexpr std::size_t kPackedPpdSignatureBytes = 5;
// The request channel carries at most this many data bytes, so data of this
// size may have been cut off: it is never used, nor anything longer.
inline constexpr std::size_t kPackedPpdCutOffBytes = 131073;
// The unpacked text goes through a buffer of this size, never whole.
inline constexpr std::size_t kPpdUnpackBufferBytes = 512;

// How far packed data of `size` bytes may unpack: 256 KiB plus 64 bytes per
// packed byte (at most about 8.3 MiB for what the channel carries). Real
// descriptions compress between 5:1 and 20:1, and any description up to
// 256 KiB passes whatever its ratio; a small input that expands beyond this
// (a compression bomb: deflate reaches about 1000:1) is refused before it
// fills the disk.
std::uint64_t MaxUnpackedPpdBytes(std::size_t size);

// Whether request data is a description to use; anything but kUsable means
// the template driver's own description is taken instead.
enum class PackedPpdState {
    kUsable,
    kMissing,         // no data, or fewer bytes than the signature
    kCutOff,          // exactly kPackedPpdCutOffBytes: possibly cut by the channel
    kTooBig,          // more than kPackedPpdCutOffBytes
    kWrongSignature,  // does not begin with "OVPPD"
};
PackedPpdState CheckPackedPpd(const void* data, std::size_t size);

enum class PpdUnpackStatus {
    kOk,
    kZlibError,    // a stream is not valid zlib data (zlibCode and message tell why)
    kTruncated,    // the data ends inside a stream, before its end mark
    kTooBig,       // the text would exceed MaxUnpackedPpdBytes
    kWriteFailed,  // the sink refused a piece
};

struct PpdUnpackResult {
    PpdUnpackStatus status = PpdUnpackStatus::kOk;
    int zlibCode = 0;         // zlib's code for kZlibError
    std::string message;      // zlib's message for kZlibError, else a description
    std::uint64_t bytes = 0;  // text handed to the sink
    bool ok() const { return status == PpdUnpackStatus::kOk; }
};

// Receives the text piece by piece (at most kPpdUnpackBufferBytes at a time);
// returns false to stop with kWriteFailed.
using PpdSink = std::function<bool(std::span<const std::byte>)>;

// Unpacks the zlib streams of `streams` (the packed data after the
// signature) into `sink`. Succeeds only when every stream is complete and
// the input ends with the last one. Nothing is held in memory but one
// buffer; a failure may come after some text was handed on.
PpdUnpackResult UnpackPpdStreams(std::span<const std::byte> streams, const PpdSink& sink);

// The packed form of the given texts: the signature, then one zlib stream
// per text. Empty when zlib fails (out of memory).
std::vector<std::byte> PackPpd(const std::vector<std::string_view>& texts);

}  // namespace ovsvc
