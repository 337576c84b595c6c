// The application's entry for Redfish events raised by a plug-in.
#include "ZApplication.h"
#include "ZRedfishEvent.h"

namespace Orbel {

void ZApplication::SendRedfishEvent(ZRedfishEvent* event) {
    ZRedfishEvent::_SendEvent(event);
}

}  // namespace Orbel
