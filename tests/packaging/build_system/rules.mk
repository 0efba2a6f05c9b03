# What a package's Makefile finds in the router's build system, in small: enough to prepare,
# configure, build and install one package for this machine.
#
# Takes OUTPUT, a folder for everything that is made, and SDK, a prefix with the router's libraries.

INCLUDE_DIR := $(TOPDIR)/include
BUILD_DIR := $(OUTPUT)/build_dir

INSTALL_BIN := install -m0755
INSTALL_DATA := install -m0644
INSTALL_CONF := install -m0600
INSTALL_DIR := install -d -m0755
CP := cp -fpR
