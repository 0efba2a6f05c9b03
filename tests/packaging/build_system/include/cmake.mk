define Build/Configure
	cmake -S $(PKG_BUILD_DIR) -B $(PKG_BUILD_DIR)/out -G Ninja \
		-DCMAKE_INSTALL_PREFIX=/usr -DCMAKE_PREFIX_PATH=$(SDK) \
		-DCMAKE_C_FLAGS="$(TARGET_CFLAGS)" -DCMAKE_CXX_FLAGS="$(TARGET_CFLAGS)" \
		-DCMAKE_EXE_LINKER_FLAGS="$(TARGET_LDFLAGS)" \
		$(CMAKE_OPTIONS)
endef

define Build/Compile
	cmake --build $(PKG_BUILD_DIR)/out -j 2
endef

define Build/Install
	DESTDIR=$(PKG_INSTALL_DIR) cmake --install $(PKG_BUILD_DIR)/out
endef
