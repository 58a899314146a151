// The driver's tables of variable size: connections, blacklist, profile.
#include <algorithm>
#include <cstring>

#include "DriverState.h"

using namespace Vti;

namespace {

constexpr uint8_t kTcp = 6;
constexpr uint8_t kUdp = 17;
constexpr uint8_t kTotals = 0;
constexpr std::size_t kMaxEntries = 65'535;

bool IsConnTrackRequest(const ConnTrackHeader &block) {
    return block.word0 == 3 && block.word2 == 0 && block.word6 == 0 && block.word8 == 0 &&
           (block.protocol == kTotals || block.protocol == kUdp || block.protocol == kTcp);
}

uint16_t AsEntryCount(std::size_t entries) {
    return static_cast<uint16_t>(std::min(entries, kMaxEntries));
}

/// Copies as many entries as fit into the block, after its header.
void CopyEntries(const std::vector<Connection> &connections, ConnTrackHeader *block) {
    const uint16_t entries = std::min(AsEntryCount(connections.size()), block->entry_ct);
    auto *target = reinterpret_cast<uint8_t *>(block + 1);
    for (uint16_t i = 0; i < entries; ++i, target += sizeof(Connection))
        std::memcpy(target, connections[i].bytes.data(), sizeof(Connection));
    block->entry_ct = entries;
}

/// Reports the size for an empty buffer, else copies as much as fits.
/// @return the new content, in bytes, of the word that held the buffer size.
uint32_t SizeOrCopy(const Driver &driver, const std::vector<uint8_t> &bytes, uint32_t room, void *target) {
    const auto size = static_cast<uint32_t>(bytes.size());
    if (room == 0)
        return driver.claimedBytes != 0 ? driver.claimedBytes : size;
    const uint32_t copied = std::min(room, size);
    if (copied != 0)
        std::memcpy(target, bytes.data(), copied);
    return copied + driver.overstatement;
}

}  // namespace

int32_t vti_get_conntrack(vti_handle_t *handle, ConnTrackHeader *block, uint32_t size, uint32_t *) {
    const std::string protocol = block != nullptr ? std::to_string(block->protocol) : "none";
    const std::string arguments = protocol + ", " + std::to_string(size);
    return Perform("vti_get_conntrack", handle, arguments, [&](const Driver &driver) -> Outcome {
        if (block == nullptr || !IsConnTrackRequest(*block))
            return {kInvalidRequest, "the head of the connection table is not that of a request"};
        if (size != sizeof(ConnTrackHeader) + sizeof(Connection) * block->entry_ct)
            return {kInvalidRequest, "the size of the connection table does not fit its number of entries"};
        if (block->protocol == kTotals)
            block->entry_ct = AsEntryCount(driver.udp.size() + driver.tcp.size());
        else {
            CopyEntries(block->protocol == kUdp ? driver.udp : driver.tcp, block);
            block->entry_ct = AsEntryCount(block->entry_ct + std::size_t{driver.overstatement});
        }
        return {};
    });
}

int32_t vti_get_blacklist(vti_handle_t *handle, BlacklistRecord *record) {
    const uint32_t room = record != nullptr ? record->bodySize : 0;
    return Perform("vti_get_blacklist", handle, std::to_string(room), [&](const Driver &driver) -> Outcome {
        if (record == nullptr)
            return {kInvalidRequest, "no record for the blacklist"};
        record->bodySize = SizeOrCopy(driver, driver.blacklist, room, record + 1);
        return {};
    });
}

int32_t vti_get_profile_stats(vti_handle_t *handle, uint32_t *buffer) {
    const uint32_t room = buffer != nullptr ? *buffer : 0;
    return Perform("vti_get_profile_stats", handle, std::to_string(room), [&](const Driver &driver) -> Outcome {
        if (buffer == nullptr)
            return {kInvalidRequest, "no buffer for the profile"};
        *buffer = SizeOrCopy(driver, driver.profile, room, buffer + 1);
        return {};
    });
}
