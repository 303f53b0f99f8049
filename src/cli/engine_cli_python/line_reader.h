#pragma once

namespace sonetrix::cli {

// Puts a function of ours in front of the interpreter's own reader of lines from the terminal, which line editing may
// have replaced by then. It
//
//   ends the read at the console's own prompt when a stop is requested, as Ctrl-C does, and
//   calls sys.linehook around every line that is read from the terminal: at the prompt, by input() or in pdb.
//
//   sys.linehook(prompt, None)   before the line is read
//   sys.linehook(prompt, line)   afterwards: the line with its line end, several lines when line editing returns a
//                                paste as one, "" at the end of input and when the line was interrupted
//
// A str that the second call returns is read in place of the line. KeyboardInterrupt in the hook interrupts the line;
// any other exception is reported as unraisable and changes nothing. Needs the interpreter lock.
void installLineReader() noexcept;

} // namespace sonetrix::cli
