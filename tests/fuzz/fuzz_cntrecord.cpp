// Controller records as the reader finds them in the heartbeat area: a run
// of reads, each one clock step (a byte) and the two nodes' slots, judged as
// the reader does.
#include <cstring>
#include <memory>

#include "cnthb/cnthb.h"
#include "fuzz_common.h"

using namespace fuzzcommon;

constexpr size_t ROUND = 1 + 2 * sizeof(cnthb_hbinf);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size > 64 * ROUND)
        return 0;
    fresh();
    fake::set_hostname("node1");
    fake::add_node("node1", 1);
    fake::add_node("node2", 2);
    fake::add_rsc(HB_KIND_CNTHB, "cnt1", 11);
    cnthb_mycntno = 0;
    cnthb_list *raw = nullptr;
    require(cnthb_loadinfo(&raw) == 0, "table of the fixed cluster");
    std::unique_ptr<cnthb_list, void (*)(cnthb_list *)> list(raw, cnthb_freelist);
    cnthb_rsc *rsc = cnthb_rscat(list.get(), 0);

    for (; size >= ROUND; data += ROUND, size -= ROUND) {
        now += data[0];
        cnthb_hbinf slots[2];
        std::memcpy(slots, data + 1, sizeof slots);
        for (int32_t j = 0; j < list->curnode; ++j) {
            cnthb_node *node = cnthb_nodeat(rsc, j);
            if (node->cntno >= 0 && node->cntno < 2)
                cnthb_hbdata(list.get(), rsc, node, &slots[node->cntno]);
        }
        cnthb_hbcheck(list.get());
        check_states(HB_KIND_CNTHB, {"cnt1"}, 2, false);
    }
    now += 3600 * 100;
    cnthb_hbcheck(list.get());
    check_states(HB_KIND_CNTHB, {"cnt1"}, 2, true);
    list.reset();
    logterm();
    return 0;
}
