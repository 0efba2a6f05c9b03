// Empty: this crate exists to pin sources, see Cargo.toml.
