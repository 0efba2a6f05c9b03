PKG_BUILD_DIR := $(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR := $(PKG_BUILD_DIR)/ipkg-install

TARGET_CFLAGS := -Os -pipe
TARGET_LDFLAGS :=
ifneq ($(filter gc-sections,$(PKG_BUILD_FLAGS)),)
  TARGET_CFLAGS += -ffunction-sections -fdata-sections
  TARGET_LDFLAGS += -Wl,--gc-sections
endif
ifneq ($(filter lto,$(PKG_BUILD_FLAGS)),)
  TARGET_CFLAGS += -flto=auto -fno-fat-lto-objects
  TARGET_LDFLAGS += -flto=auto
endif

define show
	$(info $(1)=$($(1)))
endef

# Variables of a package's definition, in a scope of their own.
define BuildPackage
show: $(foreach name,SECTION CATEGORY SUBMENU TITLE DEPENDS USERID,definition-$(name))
definition-%:
	$(eval $(Package/$(1)))
	@:$$(call show,$$*)
show-%:
	@:$$(call show,$$*)
conffiles:
	$$(info $$(Package/$(1)/conffiles))
	@:
prepare:
	$$(Build/Prepare)
compile: prepare
	$$(Build/Configure)
	$$(Build/Compile)
	$$(Build/Install)
install:
	$$(call Package/$(1)/install,$$(OUTPUT)/root)
endef
