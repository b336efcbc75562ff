// The operating system's headers for files, terminals, limits and processes, in one place: a file
// that includes this one talks to the kernel, and no other file does. The calls are made by their
// plain names, so that a test can put its own function in the place of any of them at link time.
#pragma once

#include <cerrno>

#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <sys/types.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>
