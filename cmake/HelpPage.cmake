# Makes the help page from the user guide: -DCMARK -DSOURCE -DHEAD -DPAGE.
execute_process(COMMAND ${CMARK} --unsafe ${SOURCE}
  OUTPUT_VARIABLE body RESULT_VARIABLE failed)
if(failed)
  message(FATAL_ERROR "Could not convert ${SOURCE}")
endif()
# Other pages of the guide are not part of the help.
string(REGEX REPLACE "<a href=\"[^\"#]*\\.md\">([^<]*)</a>" "\\1" body "${body}")
file(READ ${HEAD} head)
file(WRITE ${PAGE} "${head}${body}</main>\n</body>\n</html>\n")
