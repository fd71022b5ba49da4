# Writes the bash completion of qlutil (cmake -DQLUTIL=<qlutil> -DOUT=<file> -P this file).
#
# The command names are the ones qlutil's help screen lists under -p, -f, -s and -j, and each
# command's options are the switches its own help page lists (qlutil -<kind> <name> with no
# options prints that page), so the completion follows the command table of the binary it ships
# with. Every -p command also takes the results switches.
cmake_minimum_required(VERSION 3.25)

set(results_switches "--latency --json --progress --duration --warmup --compare --threshold")

function(run_qlutil out)
  execute_process(COMMAND ${QLUTIL} ${ARGN} OUTPUT_VARIABLE text ERROR_QUIET TIMEOUT 20
                  WORKING_DIRECTORY ${WORKDIR})
  string(REPLACE "\r" "" text "${text}")
  string(REPLACE ";" " " text "${text}")
  string(REPLACE "\n" ";" text "${text}")
  set(${out} "${text}" PARENT_SCOPE)
endfunction()

if(NOT QLUTIL OR NOT OUT)
  message(FATAL_ERROR "usage: cmake -DQLUTIL=<qlutil> -DOUT=<file> -P gen-completion.cmake")
endif()
get_filename_component(WORKDIR ${OUT} DIRECTORY)

run_qlutil(screen)
set(kind "")
foreach(line IN LISTS screen)
  if(line MATCHES "\\(-([pfsj]) command")
    set(kind ${CMAKE_MATCH_1})
  elseif(line MATCHES "^[ ]*$")
    set(kind "")
  elseif(kind)
    string(REGEX MATCHALL "[^ ]+" names "${line}")
    list(APPEND commands_${kind} ${names})
  endif()
endforeach()

set(body "")
foreach(kind p f s j)
  if(NOT commands_${kind})
    message(FATAL_ERROR "the help screen of ${QLUTIL} lists no -${kind} commands")
  endif()
  list(JOIN commands_${kind} " " words)
  string(APPEND body "_qlutil_commands_${kind}='${words}'\n")
  foreach(name IN LISTS commands_${kind})
    run_qlutil(page -${kind} ${name})
    set(options "")
    foreach(line IN LISTS page)
      if(line MATCHES "^     (--?[A-Za-z][A-Za-z0-9_-]*)")
        list(APPEND options ${CMAKE_MATCH_1})
      endif()
    endforeach()
    list(REMOVE_DUPLICATES options)
    list(JOIN options " " words)
    if(kind STREQUAL "p")
      string(APPEND words " ${results_switches}")
    endif()
    string(MAKE_C_IDENTIFIER "${kind}_${name}" id)
    string(APPEND body "_qlutil_options_${id}='${words}'\n")
  endforeach()
endforeach()

file(WRITE ${OUT} "# bash completion for qlutil: -p, -f, -s or -j, then a command of that kind, then
# the switches of that command. Generated from qlutil's own help pages.
${body}
_qlutil() {
  local cur=\${COMP_WORDS[COMP_CWORD]} kind= cmd= var i
  for ((i = 1; i < COMP_CWORD; i++)); do
    case \${COMP_WORDS[i]} in
      -p | -f | -s | -j)
        kind=\${COMP_WORDS[i]#-}
        cmd=\${COMP_WORDS[i + 1]}
        break
        ;;
    esac
  done
  if [[ -z \$kind ]]; then
    COMPREPLY=(\$(compgen -W '-p -f -s -j' -- \"\$cur\"))
  elif ((i + 1 == COMP_CWORD)); then
    var=_qlutil_commands_\$kind
    COMPREPLY=(\$(compgen -W \"\${!var}\" -- \"\$cur\"))
  elif [[ \$cur == -* ]]; then
    var=_qlutil_options_\${kind}_\${cmd//[^A-Za-z0-9_]/_}
    COMPREPLY=(\$(compgen -W \"\${!var-}\" -- \"\$cur\"))
  else
    COMPREPLY=(\$(compgen -f -- \"\$cur\"))
  fi
}
complete -F _qlutil qlutil
")
