-- What the planner takes pages and rows to cost. The stock figures are a disk's: reading a page somewhere counts as much
-- as reading four in a row, and a row next to nothing. A registrar's tables are in memory, where a page costs hardly
-- anything and a row much: with them the address maps' statement (every map with its contact set, at each lookup of a
-- request URI) reads all of a million contact sets from 2,000 maps on. With these it reads one set for each map, with
-- 10,000 of them in 0.36 of the time, and the lookups and listings are planned as before
-- (scripts/with-server bench/schema/measure maps, and costs).

DO $$
DECLARE
    setting text;
BEGIN
    FOREACH setting IN ARRAY ARRAY[
        -- A page out of order costs hardly more than the next one.
        'random_page_cost TO 1.1',
        -- A row read costs three times what the planner thinks, beside a page. With either cost alone, several
        -- processes that share the reading of all sets still look cheaper.
        'cpu_tuple_cost TO 0.03'
    ] LOOP
        EXECUTE format('ALTER DATABASE %I SET %s', current_database(), setting);
    END LOOP;
END
$$;
