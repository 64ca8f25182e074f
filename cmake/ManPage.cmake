# Writes the tool's man page from its own --help texts, so that the page and
# the tool never disagree, then gzips it as Debian keeps man pages.
#   cmake -DTOOL=<tool> -DVERSION=<version> -DOUTPUT=<page.1> -P ManPage.cmake
# Makes OUTPUT.gz.
cmake_minimum_required(VERSION 3.25)
function(help_text out)
  execute_process(COMMAND ${TOOL} ${ARGN} --help OUTPUT_VARIABLE text RESULT_VARIABLE code)
  if(NOT code EQUAL 0)
    message(FATAL_ERROR "${TOOL} ${ARGN} --help failed (${code})")
  endif()
  # The usage lines carry the path the tool was run by.
  string(REPLACE "${TOOL}" "vesk-transport" text "${text}")
  # roff: backslashes and lines that begin with a control character.
  string(REPLACE "\\" "\\e" text "${text}")
  string(REGEX REPLACE "(^|\n)([.'])" "\\1\\\\&\\2" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

help_text(main)
string(REGEX MATCH "Subcommands:\n.*" listing "${main}")
string(REGEX MATCHALL "\n  [a-z][a-z-]*" subcommands "${listing}")
set(page ".TH VESK-TRANSPORT 1 \"\" \"vesk_transport ${VERSION}\" \"User Commands\"
.SH NAME
vesk-transport \\- shows what a transport property list does
.SH SYNOPSIS
.B vesk-transport
.I subcommand
[options] [files...]
.SH DESCRIPTION
.nf
${main}.fi
")
foreach(entry ${subcommands})
  string(STRIP "${entry}" subcommand)
  help_text(text ${subcommand})
  string(APPEND page ".SH \"vesk-transport ${subcommand}\"\n.nf\n${text}.fi\n")
endforeach()
string(APPEND page ".SH \"SEE ALSO\"
tool.md and properties.md in the package's documentation directory.
")
file(WRITE ${OUTPUT} "${page}")
file(ARCHIVE_CREATE OUTPUT ${OUTPUT}.gz PATHS ${OUTPUT} FORMAT raw COMPRESSION GZip)
