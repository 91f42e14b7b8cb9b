#error "The program has a header of this name, which the library must not find."
