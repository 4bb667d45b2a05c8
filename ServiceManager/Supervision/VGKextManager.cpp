#include "ServiceManager/Supervision/VGKextManager.h"

#include "ServiceManager/Catalogue/PathComponents.h"

bool VGKextManagerExecuteKextCommand(platform::Tasks& tasks, const std::string& root,
                                     const std::vector<std::string>& arguments) {
  const auto task = tasks.newTask();
  task->setLaunchPath(pathByAppendingComponent(root, kKextUnloadPath));
  task->setArguments(arguments);
  return task->launch() && task->waitUntilExit() == 0;
}
