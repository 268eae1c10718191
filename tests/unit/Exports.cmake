# Fails when the library exports what only its own sources and tests use.
execute_process(COMMAND ${NM} -DC --defined-only ${LIBRARY}
    OUTPUT_VARIABLE symbols COMMAND_ERROR_IS_FATAL ANY)
if(NOT symbols MATCHES "kiro::web::test::FakePubSub::doPublish")
    message(FATAL_ERROR "The library does not export what it should")
endif()
string(REGEX REPLACE ";" "," symbols "${symbols}")
string(REGEX REPLACE "\n" ";" symbols "${symbols}")
foreach(symbol IN LISTS symbols)
    # The constructor of JSONObject names its Impl.
    if(symbol MATCHES "::Impl::|::CompletionTokenManager::|kiro::(replace|steadyNow|allocate)"
       OR (symbol MATCHES "for kiro::[A-Za-z:]*(Impl|CompletionTokenManager)"))
        message(SEND_ERROR "exported: ${symbol}")
    endif()
endforeach()
