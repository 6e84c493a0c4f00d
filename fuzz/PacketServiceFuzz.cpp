// Input: tables of command handlers, the handlers' actions, and command packets. Handlers allocate
// responses of every kind and length, shorten, commit, free or return them. Checks: no access
// beyond a packet; a handler gets the packet that came; the driver takes every response.
#include "diag_lsm/diag_lsm.h"
#include "diag_lsm/diag_lsm_pkt.h"
#include "fuzz/Session.h"

using fuzz::mustHold;

namespace {

fuzz::Feed* feed = nullptr;              // the rest of the input
const unsigned char* request = nullptr;  // the packet being served
unsigned requestLength = 0;

// Writes to the packet's last byte.
void* filled(void* packet, unsigned length) {
    if (packet) static_cast<unsigned char*>(packet)[length - 1] ^= 1;
    return packet;
}

void delayedPart(unsigned length) {
    const uint8_t id = feed->byte();
    const uint16_t code = feed->word();
    void* const packet = id % 2 ? diagpkt_delay_alloc(id, length)
                                : diagpkt_subsys_alloc_v2_delay(id, code, feed->word(), length);
    diagpkt_delay_commit(filled(packet, length));
}

void* handle(void* packet, unsigned length) {
    mustHold(packet == request && length == requestLength, "the handler gets the packet");
    const unsigned size = feed->word() % 3000;
    const uint8_t id = feed->byte();
    const uint8_t kind = feed->byte() % 6;
    void* response = nullptr;
    if (kind == 0) return diagpkt_err_rsp(id, packet, length);
    if (kind == 1) response = filled(diagpkt_alloc(id, size), size);
    if (kind == 2) response = filled(diagpkt_subsys_alloc(id, feed->word(), size), size);
    if (kind == 3) response = diagpkt_subsys_alloc_v2(id, feed->word(), size);
    if (kind == 3 && response) diagpkt_subsys_set_status(response, size);
    if (kind == 4) delayedPart(size);
    if (!response) return nullptr;
    diagpkt_shorten(response, feed->word());
    if (feed->byte() % 4 != 0) return response;
    feed->byte() % 2 ? diagpkt_free(response) : diagpkt_commit(response);
    return nullptr;
}

void serve(const fuzz::Bytes& packet) {
    const auto copy = fuzz::exactCopy(packet.data(), packet.size());
    request = copy.get();
    requestLength = static_cast<unsigned>(packet.size());
    diagpkt_LSM_process_request(copy.get(), static_cast<uint16_t>(packet.size()));
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const bool ready = (fuzz::plug({}), Diag_LSM_Init(nullptr) == 1);
    mustHold(ready, "the device opens");
    fuzz::Feed input(data, size);
    feed = &input;
    std::vector<diagpkt_user_entry> entries[4];
    for (size_t tables = input.byte() % 4; tables > 0; --tables) {
        std::vector<diagpkt_user_entry>& table = entries[tables];
        for (uint8_t left = input.byte() % 4; left > 0; --left) {
            const uint16_t lowest = input.word(), highest = input.word();
            table.push_back({lowest, highest, input.byte() % 4 ? handle : nullptr});
        }
        const uint16_t delay = input.byte() % 2, code = input.byte(), id = input.byte();
        const diagpkt_user_table_desc description{
            delay, code, id, static_cast<uint16_t>(table.size()), 0, table.data()};
        diagpkt_tbl_reg(&description);
    }
    while (!input.empty())
        serve(input.block());
    mustHold(Diag_LSM_Pkt_DeInit() == 1 && gPkt_commit_fail == 0, "the driver took everything");
    return 0;
}
