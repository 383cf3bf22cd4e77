#include "platform/files/Files.h"
#include "ui/App.h"

int main(int argc, char** argv) {
  tamsel::Files::ensureRuntimeFolder();
  return tamsel::TamselApp::create()->run(argc, argv);
}
