DELETE FROM contact WHERE expires < 1000000000 AND permanent = 'f';
