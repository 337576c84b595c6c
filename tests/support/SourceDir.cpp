// The source tree's path, for suites that read files kept in it (scripts,
// schemas, sample templates). Only this file carries the path in its
// compile flags, so the compiler cache still serves every other file to a
// clone at another path.
#include "TestEnv.h"

#include "FixedPaths.h"

#ifndef ORBEL_SOURCE_DIR
#error "ORBEL_SOURCE_DIR names the source tree"
#endif

namespace OrbelTest {

const std::string& SourceDir() {
    static const std::string dir = ORBEL_SOURCE_DIR;
    return dir;
}

void InstallSampleTemplates() {
    for (const char* name : {"ServiceRoot", "ComputerSystemCollection", "ComputerSystem"}) {
        const std::string file = std::string(name) + ".dat";
        WriteFile(Orbel::UserInputTemplateDir() + file,
                  ReadFile(SourceDir() + "/examples/RF_Root/templates/" + file));
    }
}

}  // namespace OrbelTest
