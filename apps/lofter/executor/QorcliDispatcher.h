// The dispatcher of host commands, with the host's command directories.
//
// Exists only in the command executor process, on its event-loop thread, from the first command that needs it until the
// process ends. So the directories are read once per executor process.
#pragma once

#include "autocli/autocli.h"

namespace lofter {

class QorcliDispatcher : public AutoCli::Dispatcher {
  public:
    static QorcliDispatcher* Instance();

    // A directory that cannot be added is logged; the others are added all the same.
    QorcliDispatcher();
    ~QorcliDispatcher() override;
};

}  // namespace lofter
