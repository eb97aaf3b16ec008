#!/usr/bin/env bash
# sqlite3 under the library: builds a database file of 50k customers and 150k orders,
# indexes it, runs aggregates, joins, window functions and text work. Every result must
# equal the same script run on the C library's allocator, and a few are known outright.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v sqlite3 >/dev/null || fail "sqlite3 is missing (package sqlite3)"
rows=50000
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && rows=500000
cat >"$scratch/workload.sql" <<SQL
pragma journal_mode = wal;
create table customers(id integer primary key, name text, city text, joined integer);
create table orders(id integer primary key, customer integer, amount integer, note text);
with recursive n(i) as (select 1 union all select i + 1 from n where i < $rows)
insert into customers select i, 'customer-' || i, 'city-' || (i * 7 % 97), i % 3650 from n;
with recursive n(i) as (select 1 union all select i + 1 from n where i < 3 * $rows)
insert into orders select i, 1 + (i * 31337) % $rows, (i * 7919) % 10007,
  printf('%s-%08d', hex(randomblob(0) || i), i) from n;
create index orders_customer on orders(customer);
create index customers_city on customers(city, joined);
select 'count', (select count(*) from customers), (select count(*) from orders);
select 'sum', sum(amount), min(amount), max(amount), total(length(note)) from orders;
select 'city', city, count(*), sum(joined) from customers group by city order by city limit 5;
select 'join', c.city, count(o.id), sum(o.amount) from customers c join orders o on o.customer = c.id
  where c.city in ('city-3', 'city-50') group by c.city order by c.city;
select 'top', customer, sum(amount) as s from orders group by customer order by s desc, customer limit 5;
select 'rank', id, amount, rank() over (order by amount desc, id) from orders where customer < 20
  order by 4 limit 5;
select 'text', count(*), sum(instr(upper(name), '99')), max(replace(name, 'customer', 'c')) from customers;
update orders set note = note || note where id % 10 = 0;
delete from customers where id % 5 = 0;
vacuum;
select 'after', count(*), sum(length(note)) from orders join customers on customers.id = orders.customer;
pragma integrity_check;
SQL
expected=$(cd "$scratch" && rm -f base.db* && sqlite3 base.db <workload.sql) ||
  fail "sqlite3 without the library exited with $?"
actual=$(cd "$scratch" && preloaded sqlite3 under.db <workload.sql) || fail "sqlite3 under the library failed"
[ "$actual" = "$expected" ] || fail "sqlite3 printed
$actual
instead of
$expected"
grep -qx "count|$rows|$((3 * rows))" <<<"$actual" || fail "sqlite3: wrong row counts"
grep -qx "ok" <<<"$actual" || fail "sqlite3: integrity check did not print ok"
pass "sqlite3 results match the run without the library ($rows customers, $((3 * rows)) orders)"
# The process imports its own memory map and counts the lines naming the library.
mapped=$(preloaded sqlite3 :memory: -cmd "create table m(l)" -cmd ".mode csv" -cmd ".separator '|'" \
  -cmd ".import /proc/self/maps m" "select l from m") || fail "sqlite3 could not import its memory map"
expect_mapped sqlite3 <<<"$mapped"
