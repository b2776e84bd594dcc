// A shared-memory file as found under run/: the first byte picks the file
// and whether the rest (the content) keeps its own length or is cut or padded
// to the layout's. Attach refuses what it cannot trust; every operation on
// an attached file stays inside it.
#include <cstring>
#include <string>
#include <vector>

#include "fuzz_common.h"
#include "plat.h"

using namespace fuzzcommon;

namespace {

void nodemanager()
{
    if (shmnm_attach() != 0)
        return;
    std::vector<char> names(NM_MAXNODE * NM_NODENAME + 1);
    int32_t size = static_cast<int32_t>(names.size());
    int32_t v = 0;
    shmnm_getwaitstat(&v);
    if (shmnm_enumnode(names.data(), &size) == 0)
        for (const char *p = names.data(); *p != '\0'; p += std::strlen(p) + 1)
            for (auto get : {shmnm_getnodepri, shmnm_getnodestat, shmnm_gethdstat})
                get(p, &v);
    for (const char *kind : {HB_KIND_LANHB, HB_KIND_CNTHB}) {
        std::vector<char> rscs(NM_MAXRSC * NM_RSCNAME + 1);
        size = static_cast<int32_t>(rscs.size());
        if (shmnm_enumrsc(kind, rscs.data(), &size) != 0)
            continue;
        for (const char *p = rscs.data(); *p != '\0'; p += std::strlen(p) + 1) {
            shmnm_getrscpri(kind, p, &v);
            for (int32_t id : {-1, 0, 1, NM_MAXNODE - 1, NM_MAXNODE})
                if (shmnm_getrscsvstat(kind, p, id, &v) == 0)
                    shmnm_setrscsvstat(kind, p, id, SHMNM_SVSTAT_ONLINE);
            shmnm_setrscstat(kind, p, SHMNM_RSCSTAT_NORMAL);
        }
    }
    shmnm_setnonvolstat(SHMNM_NONVOL_NOTREADY);
    shmnm_detach();
}

void clustermanager()
{
    if (shmcm_attach() != 0)
        return;
    char text[SHMCM_TEXT_SIZE];
    for (auto get : {shmcm_getedition, shmcm_getversion})
        if (get(text) == 0)
            require(std::memchr(text, '\0', sizeof text) != nullptr, "edition/version ends inside its buffer");
    int32_t a = 0, b = 0;
    char info[SHMCM_ACTINFO_SIZE];
    shmcm_getaction(&a, info, nullptr);
    shmcm_getratio(&a, &b);
    shmcm_detach();
}

void semaphore()
{
    if (sem_attach() == 0)
        sem_set_statchange(), sem_detach();
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size < 1)
        return 0;
    const int which = data[0] % 3;
    const bool keeplen = (data[0] & 0x80) != 0;
    const char *const files[] = {NM_FILE, CM_FILE, SEM_FILE};
    const size_t sizes[] = {sizeof(nm_layout), sizeof(cm_layout), sizeof(sem_layout)};
    std::string content(reinterpret_cast<const char *>(data + 1), size - 1);
    if (!keeplen)
        content.resize(sizes[which], '\0');
    putfile(std::string("run/") + files[which], content);
    void (*const use[])() = {nodemanager, clustermanager, semaphore};
    use[which]();
    return 0;
}
