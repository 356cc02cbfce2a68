#include "Platform/Fake/QXFakeFaults.h"

TQXPlatformFaults::Translator TQXFakeFaults::SetTranslator(Translator t) {
  ++translatorInstalls;
  Translator previous = translator;
  translator = t;
  return previous;
}

uint32_t TQXFakeFaults::SetErrorMode(uint32_t mode) {
  uint32_t previous = errorMode;
  errorMode = mode;
  return previous;
}

TQXPlatformFaults::TerminateHandler TQXFakeFaults::SetTerminateHandler(TerminateHandler h) {
  TerminateHandler previous = terminateHandler;
  terminateHandler = h;
  return previous;
}

bool TQXFakeFaults::Raise(uint32_t code) {
  if (!translator) return false;
  translator(code);
  return true;
}

void TQXFakeFaults::Terminate() {
  if (terminateHandler) terminateHandler();
}
