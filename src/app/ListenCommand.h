#pragma once

#include <iosfwd>
#include <string>
#include <vector>

namespace velmora {

// `velmora-audio-helper listen`: a command-line stand-in for a web page. It connects to the
// running helper like a page of an allowed origin, starts streaming with a pass signed by the
// development key (or --key), prints the level of each second and can save the audio as WAV.
//   listen [--seconds N] [--out FILE] [--port P] [--origin ORIGIN] [--key FILE]
// Exit codes: 0 streamed; 1 the helper refused or could not be reached; 2 bad arguments.
int runListenCommand(const std::vector<std::string>& args, std::ostream& out, std::ostream& err);

}  // namespace velmora
