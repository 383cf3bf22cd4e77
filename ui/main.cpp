#include "ui/App.h"

int main(int argc, char** argv) {
  return tamsel::TamselApp::create()->run(argc, argv);
}
