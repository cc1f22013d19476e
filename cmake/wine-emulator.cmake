# Tests and tools run under Wine, in a prefix that belongs to this build tree.
# The wrapper script is generated at configure time (see the top CMakeLists).
set(CMAKE_CROSSCOMPILING_EMULATOR ${CMAKE_BINARY_DIR}/wine-run)
