// The message list of a task: the Redfish "Messages" of a Task resource
// (progress notes, the start and end of the work, its faults).
//
// Kept as a small tree mirrored into the store (docs/wire-protocol.md,
// "Tasks"): one JSON array without parent at <task URL>/Messages_, whose
// elements are "&&Object" links to one hash per message
// (&&<task URL>/Messages_/<n>) holding "MessageId" and the argument list
// "MessageArgs". The task resource links the array as its "Messages", so a
// reader assembles the list with the ordinary tree rules. A message's text is
// not stored: the reader expands the MessageId from its registry.
//
// Threads: any thread may add or remove messages while another applies them
// (a work function reporting progress from its helper threads); one mutex
// guards the list. ApplyTaskMsgsToRedis writes each new message whole before
// the list entry that makes it visible, so a reader never finds a message
// without its arguments.
#ifndef ORBEL_TASKMESSAGES_H
#define ORBEL_TASKMESSAGES_H

#include <hiredis/hiredis.h>

#include <cstdint>
#include <string>
#include <vector>

#include "Orbel_Mutex.h"
#include "ResponseExtendedInfo.h"

namespace Orbel {

class ZJsonArray;
class ZJsonObject;

class TaskMessages {
public:
    TaskMessages() = default;
    // Retires the nodes; their store keys stay for the front end.
    virtual ~TaskMessages();

    TaskMessages(const TaskMessages&) = delete;
    TaskMessages& operator=(const TaskMessages&) = delete;

    // Creates the message array at `taskJPath` + "/Messages_" (any list left
    // there is removed first). 0; 13 for an empty path; 2 when the array
    // cannot be made (logged). A second call does nothing.
    eRtCode TaskMsgsSetParentJPath(const std::string& taskJPath);
    // The array's JPath ("" before TaskMsgsSetParentJPath).
    std::string GetTaskMsgsJPath() const;

    // Adds one message of registry row `msg` with its arguments, as plain
    // texts ("7", "20"): each is stored as a JSON string, as the registries
    // type every MessageArgs item. Returns the message's number (its node
    // name), or -1 (logged) without an array or for a row that does not exist.
    int32_t AddTaskMessage(eRespMsg msg, const std::vector<std::string>& args = {});
    // Removes every message of row `msg` (its keys at once, its list entry
    // with the next ApplyTaskMsgsToRedis).
    void RemoveTaskMessage(eRespMsg msg);
    void CleanAllTaskMessages();
    uint32_t GetTaskMessageNum() const;
    std::vector<std::string> GetTaskMessageIDs() const;

    // Writes the pending changes of the messages, then of the array. 2
    // (logged) without an array.
    eRtCode ApplyTaskMsgsToRedis(redisContext* c = nullptr);

private:
    struct sTaskMsg {
        eRespMsg msgId;
        ZJsonObject* node;
    };
    void _Drop(const sTaskMsg& m);

    ZJsonArray* mTaskMsgsObj = nullptr;  // owned; set once, before any message
    mutable Mutex mTaskMsgsMutex;
    std::vector<sTaskMsg> mTaskMsgs GUARDED_BY(mTaskMsgsMutex);  // in list order
    // Names the nodes; never reused.
    uint32_t mTaskMsgCounter GUARDED_BY(mTaskMsgsMutex) = 0;
};

}  // namespace Orbel

#endif  // ORBEL_TASKMESSAGES_H
