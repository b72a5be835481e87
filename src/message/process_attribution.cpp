#include "message/process_attribution.h"

#include "base/process_identity.h"
#include "config/extension_switches.h"
#include "message/recorder_message.h"

void attributeToProcess(RecorderMessage& message) {
  if (extensionOn(EXT_PID_EVERYWHERE)) message.set(RMA_PID, currentProcessId);
}
