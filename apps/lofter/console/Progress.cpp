#include "console/Progress.h"

#include "krxctl/KernelProgressScreenImpl.h"

namespace lofter {

namespace {

void Show(const char* progressText) {
    KrxCtl::System::KernelProgressScreenImpl progressScreen;
    progressScreen.ProgressText(progressText);
    progressScreen.StatusText("");
}

}  // namespace

void ShowProgress() {
    Show("Activating Lofter Plugins");
}

void ClearProgress() {
    Show("");
}

}  // namespace lofter
