# Prints what each probe tells, from probes_begin on.
set pagination off
break probes_begin
run

break -probe-stap zynpsp:alloc_fail
commands
  silent
  printf "fired alloc_fail %lu %#lx\n", $_probe_arg0, $_probe_arg1
  continue
end
break -probe-stap zynpsp:lock_wait
commands
  silent
  printf "fired lock_wait %#lx %#lx\n", $_probe_arg0, $_probe_arg1
  continue
end
break -probe-stap zynpsp:lock_got
commands
  silent
  printf "fired lock_got %#lx\n", $_probe_arg0
  continue
end
break -probe-stap zynpsp:file_open
commands
  silent
  printf "fired file_open %s %d %u %d\n", (char*)$_probe_arg0, $_probe_arg1, \
    $_probe_arg2, $_probe_arg3
  continue
end
break -probe-stap zynpsp:file_close
commands
  silent
  printf "fired file_close %s %d %d\n", (char*)$_probe_arg0, $_probe_arg1, $_probe_arg2
  continue
end
break -probe-stap zynpsp:file_sync
commands
  silent
  printf "fired file_sync %s %d %d\n", (char*)$_probe_arg0, $_probe_arg1, $_probe_arg2
  continue
end
break -probe-stap zynpsp:log_line
commands
  silent
  printf "fired log_line %s;%d\n", (char*)$_probe_arg0, $_probe_arg1
  continue
end
continue
