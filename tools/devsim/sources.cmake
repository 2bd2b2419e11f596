# The simulator's logic, named once: its library and its fuzzers compile these.
set(HMISVC_DEVSIM_SOURCES
  settings_store.cpp device_state.cpp wire.cpp services.cpp broadcast_hub.cpp state.cpp control.cpp
  call_log.cpp scenario.cpp holds.cpp service_process.cpp)
