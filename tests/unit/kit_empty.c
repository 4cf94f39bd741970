int kit_without_functions = 0;
