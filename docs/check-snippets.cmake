# cmake -DBUILD_DIR=... -DGUIDE_DIR=... -DSNIPPET_DIR=... -DREADME=... -P check-snippets.cmake
# Builds the guide's fragments, then checks that every C++ block of the guide
# is one of them, word for word.
execute_process(COMMAND ${CMAKE_COMMAND} --build ${BUILD_DIR} --target orvanta_doc_snippets RESULT_VARIABLE built)
if(NOT built EQUAL 0)
    message(FATAL_ERROR "the guide's fragments do not compile")
endif()
execute_process(COMMAND /usr/bin/python3 ${CMAKE_CURRENT_LIST_DIR}/check-snippets.py ${GUIDE_DIR} ${SNIPPET_DIR}
                        ${README} RESULT_VARIABLE checked)
if(NOT checked EQUAL 0)
    message(FATAL_ERROR "the guide quotes code that no fragment holds")
endif()
