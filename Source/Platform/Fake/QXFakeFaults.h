// A fault role that records what is installed and delivers scripted faults: Raise(code) behaves
// as a processor fault of that code on the calling thread, including codes that Linux never
// hands over, such as a breakpoint.
#ifndef QXFAKEFAULTS_H
#define QXFAKEFAULTS_H

#include "Platform/QXPlatformFaults.h"

class TQXFakeFaults final : public TQXPlatformFaults {
 public:
  Translator SetTranslator(Translator t) override;
  uint32_t SetErrorMode(uint32_t mode) override;
  TerminateHandler SetTerminateHandler(TerminateHandler h) override;

  // Hands `code` to the installed translator, as a fault would. Returns true when the translator
  // returned (the fault takes its previous course), false when there is no translator.
  bool Raise(uint32_t code);
  // Calls the installed terminate handler, as a terminate call would.
  void Terminate();

  Translator translator = nullptr;
  TerminateHandler terminateHandler = nullptr;
  uint32_t errorMode = 0;
  int translatorInstalls = 0;
};

#endif  // QXFAKEFAULTS_H
