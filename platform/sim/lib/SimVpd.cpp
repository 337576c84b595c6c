// Vital product data on a development host: the machine record is the file
// <sysroot>/var/lib/vpd/machine.vpd. The first read on a fresh sysroot
// generates a default record, so a plug-in can build its event payloads
// without any preparation.
#include <cerrno>
#include <cstring>
#include <string>

#include "SimStore.h"
#include "vpdd.h"

namespace OrbelSim {

namespace {

// A fixed, well-formed (version 4) UUID, the same on every development
// host, so tests and demos can compare against it.
constexpr char kDefaultUuid[] = "6E2B8F14A09C4D3B8F5A1C7D2E9B0A63";
constexpr char kDefaultSerial[] = "SIM0000001";
constexpr char kDefaultMtm[] = "7X99CTO1WW";

std::string DefaultRecord() {
    static_assert(sizeof(kDefaultUuid) - 1 == VPDD_UUID_LENGTH, "UUID has 32 digits");
    std::string record(VPDD_MACHINE_RECORD_SIZE, '\0');
    record.replace(VPDD_UUID_OFFSET, VPDD_UUID_LENGTH, kDefaultUuid);
    record.replace(VPDD_SERIAL_OFFSET, sizeof(kDefaultSerial) - 1, kDefaultSerial);
    record.replace(VPDD_MTM_OFFSET, sizeof(kDefaultMtm) - 1, kDefaultMtm);
    return record;
}

}  // namespace

std::string VpdPath() {
    return SysrootPath("/var/lib/vpd/machine.vpd");
}

int VpdLoad(std::string& record) {
    std::string data;
    int err = 0;
    if (!ReadRegularFile(VpdPath(), data, &err)) {
        if (err != ENOENT) return VPDD_ERR_IO;
        // Two processes racing here write the same bytes; rename() makes
        // either result whole.
        data = DefaultRecord();
        if (!WriteFileAtomic(VpdPath(), data)) return VPDD_ERR_IO;
    }
    if (data.size() != VPDD_MACHINE_RECORD_SIZE) return VPDD_ERR_IO;
    record.swap(data);
    return VPDD_OK;
}

int VpdStore(const std::string& record) {
    if (record.size() != VPDD_MACHINE_RECORD_SIZE) return VPDD_ERR_ARG;
    return WriteFileAtomic(VpdPath(), record) ? VPDD_OK : VPDD_ERR_IO;
}

}  // namespace OrbelSim

extern "C" int vpdd_machine_vpd_read(unsigned char* buffer, int size) {
    if (buffer == nullptr || size < VPDD_MACHINE_RECORD_SIZE) return VPDD_ERR_ARG;
    std::string record;
    int rc = OrbelSim::VpdLoad(record);
    if (rc != VPDD_OK) return rc;
    std::memcpy(buffer, record.data(), record.size());
    return VPDD_OK;
}
