-- Parameters of the suite's programs. The servers only read them.

SET LOCAL ROLE oryx_owner;

CREATE TABLE system_parameters (
    application text,
    scope       text,
    name        text,
    value       text,
    PRIMARY KEY (application, scope, name)   -- also finds all of one application
);

GRANT SELECT ON system_parameters TO oryx_server, oryx_reader;

RESET ROLE;
