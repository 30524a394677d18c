# Builds the emulated machine, the driver, the tool and the tests as 32-bit x86
# Linux programs (multilib g++): the word size and record layouts of the real
# target, and the machine that can run the driver image built for it.
set(CMAKE_C_FLAGS_INIT -m32)
set(CMAKE_CXX_FLAGS_INIT -m32)
set(CMAKE_EXE_LINKER_FLAGS_INIT -m32)
set(CMAKE_SHARED_LINKER_FLAGS_INIT -m32)
set(CMAKE_MODULE_LINKER_FLAGS_INIT -m32)
