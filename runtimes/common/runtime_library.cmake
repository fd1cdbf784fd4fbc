# What the libraries of both bundled runtimes share: their runtime's headers
# and the common ones, C++20, hidden symbols and warnings.
function(ondrel_runtime_library target)
  set(common ${CMAKE_CURRENT_FUNCTION_LIST_DIR})
  target_include_directories(${target} PUBLIC ${CMAKE_CURRENT_SOURCE_DIR}/include ${common}/include
    PRIVATE ${CMAKE_CURRENT_SOURCE_DIR} ${common})
  set_target_properties(${target} PROPERTIES CXX_STANDARD 20 CXX_STANDARD_REQUIRED ON POSITION_INDEPENDENT_CODE ON
    CXX_VISIBILITY_PRESET hidden VISIBILITY_INLINES_HIDDEN ON)
  if(TARGET ondrel_warnings)
    target_link_libraries(${target} PRIVATE ondrel_warnings)
  else()
    target_compile_options(${target} PRIVATE -Wall -Wextra)
  endif()
endfunction()

# A runtime's hipRTC library: the shared entry points over the runtime's own
# ondrel_rtc::compile and ondrel_rtc::version, among `sources`.
function(ondrel_runtime_hiprtc target)
  add_library(${target} SHARED ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/rtc/hiprtc.cpp ${ARGN})
  ondrel_runtime_library(${target})
endfunction()
