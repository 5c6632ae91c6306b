// Unpacking the packed printer description a PostScript client printer
// sends: the input is the request's data as it arrives.
#include <cstdlib>
#include <string>

#include "create/packed_ppd.h"

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    if (ovsvc::CheckPackedPpd(data, size) != ovsvc::PackedPpdState::kUsable) {
        return 0;
    }
    const std::span<const std::byte> streams(
        reinterpret_cast<const std::byte*>(data) + ovsvc::kPackedPpdSignatureBytes,
        size - ovsvc::kPackedPpdSignatureBytes);
    std::string text;
    const ovsvc::PpdUnpackResult result =
        ovsvc::UnpackPpdStreams(streams, [&](std::span<const std::byte> piece) {
            // Pieces never exceed the buffer, and the text never its limit.
            if (piece.empty() || piece.size() > ovsvc::kPpdUnpackBufferBytes) {
                std::abort();
            }
            text.append(reinterpret_cast<const char*>(piece.data()), piece.size());
            return true;
        });
    if (result.bytes != text.size() || text.size() > ovsvc::MaxUnpackedPpdBytes(streams.size())) {
        std::abort();
    }
    if (!result.ok()) {
        if (result.message.empty()) {
            std::abort();
        }
        return 0;
    }
    // Whatever unpacked packs again into a description that unpacks the same.
    const std::vector<std::byte> again = ovsvc::PackPpd({text});
    std::string back;
    const ovsvc::PpdUnpackResult second = ovsvc::UnpackPpdStreams(
        std::span<const std::byte>(again).subspan(ovsvc::kPackedPpdSignatureBytes),
        [&](std::span<const std::byte> piece) {
            back.append(reinterpret_cast<const char*>(piece.data()), piece.size());
            return true;
        });
    if ((!second.ok() && second.status != ovsvc::PpdUnpackStatus::kTooBig) ||
        (second.ok() && back != text)) {
        std::abort();
    }
    return 0;
}
